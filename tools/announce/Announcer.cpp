// All services of the program, in one context of the library.
// Everything happens on the main thread. The library's threads only post to the loop, and copy
// what they pass; there is no lock.

#include "Announcer.h"

#include <algorithm>
#include <exception>
#include <utility>

#include "Answers.h"

namespace orvx::announce {

using namespace std::chrono_literals;
using nlohmann::json;

namespace {

/// An attempt that is under way may be the first one that reaches the registry.
constexpr std::chrono::milliseconds kGraceOfTheUnreached = 500ms;

}  // namespace

Announcer::Announcer(EventLoop& loop, Children& children, const Options& options,
                     std::shared_ptr<communication::HttpCredentials> credentials,
                     Announcement::Changed changed)
    : loop_(loop),
      children_(children),
      options_(options),
      credentials_(std::move(credentials)),
      statistics_(std::make_shared<communication::ClientStatistics>()),
      changed_(std::move(changed)),
      registry_("registry", options.registry.host, options.registry.port) {
    for (const json& description : options.services) {
        add(description);
    }
}

void Announcer::add(const json& description) {
    const auto [entry, isNew] = services_.try_emplace(
        description.at("uri").get<std::string>(),
        Service{std::make_unique<Announcement>(loop_, description, counts_, changed_), nullptr});
    Announcement& announcement = *entry->second.announcement;
    entry->second.health = std::make_unique<HealthCheck>(
        loop_, children_, options_, description, [this, &announcement](const std::string& reason) {
            announcement.setHealth(reason);
            announceAgain(announcement);
        });
}

void Announcer::open() {
    const RegistryOptions& registry = options_.registry;
    communication::HttpConfig http;
    http.userAgent = "orvx-announce";
    http.credentials = credentials_;
    http.statistics = statistics_;
    http.proxy = registry.proxy;
    http.unixSocketPath = registry.unixSocket;
    http.tls.enabled = registry.secure;
    http.tls.authorityFile = registry.authorityFile;
    http.tls.clientCertificateFile = registry.clientCertificateFile;
    http.tls.clientKeyFile = registry.clientKeyFile;
    auto context = std::make_unique<Context>();
    context->setHttpConfig(http);
    context->enableResilience(true);
    context->setCheckInterval(registry.checkInterval);
    context->setHeadTimeout(registry.checkTimeout);
    context->setRetryInterval(registry.retryInterval);
    context->setSyncCallUnregisterTimeout(options_.withdrawTimeout);
    context->setRegistrationListener(
        [this](const Announcement::Event& event) { loop_.post([=] { take(event); }); });
    context->setLogLevel(utility::ILogger::LogLevel::Off);  // Its events tell what users need.
    context->init();
    context_ = std::move(context);
}

void Announcer::announce() {
    try {
        if (!context_) {
            open();
        }
    } catch (const std::exception& error) {
        for (auto& [uri, service] : services_) {
            service.announcement->refuse(error.what());
        }
        return;
    }
    for (auto& [uri, service] : services_) {
        service.announcement->announce(*context_->getServiceRegistryClient(), registry_);
    }
    if (!std::exchange(isServing_, true)) {
        startHealthChecks();
    }
}

/// Spread over the interval, so that their processes are.
void Announcer::startHealthChecks() {
    std::chrono::milliseconds sum{0};
    for (auto& [uri, service] : services_) {
        service.health->start(sum / services_.size());
        sum += options_.health.interval;
    }
}

/// What is withdrawn because it was unhealthy, and is healthy.
void Announcer::announceAgain(Announcement& announcement) {
    if (isServing_ && announcement.state() == Announcement::State::Withdrawn) {
        announcement.announce(*context_->getServiceRegistryClient(), registry_);
    }
}

void Announcer::take(const Announcement::Event& event) {
    Announcement& announcement = *services_.at(event.status.uri).announcement;
    announcement.take(event);
    announceAgain(announcement);
}

void Announcer::withdraw() {
    isServing_ = false;
    for (auto& [uri, service] : services_) {
        service.health->stop();
    }
    each(&Announcement::withdraw);
    loop_.after(kGraceOfTheUnreached, [this] {
        if (nothingWasSent(statistics_->snapshot())) {
            each(&Announcement::findNothingSent);
        }
    });
}

void Announcer::giveUp() {
    each(&Announcement::giveUp);
}

void Announcer::each(void (Announcement::*operation)()) {
    for (auto& [uri, service] : services_) {
        (*service.announcement.*operation)();
    }
}

std::size_t Announcer::count(Announcement::State state) const {
    const auto found = counts_.find(state);
    return found == counts_.end() ? 0 : found->second;
}

std::size_t Announcer::countConfirmed() {
    refresh();
    const auto oldest = std::chrono::system_clock::now() - 2 * options_.registry.checkInterval;
    return static_cast<std::size_t>(
        std::count_if(services_.begin(), services_.end(), [oldest](const auto& entry) {
            return entry.second.announcement->isConfirmedSince(oldest);
        }));
}

void Announcer::refresh() {
    if (context_) {
        for (const auto& known : context_->getRegistrations()) {
            services_.at(known.uri).announcement->take(known);
        }
    }
}

json Announcer::status() {
    refresh();
    json status = json::array();
    for (const auto& [uri, service] : services_) {
        status.push_back(service.announcement->status());
    }
    return status;
}

}  // namespace orvx::announce
