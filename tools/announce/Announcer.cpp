// Announces all services of the program in one context of the library.
// Runs on the main thread. The library's threads only post copies to the loop; there is no lock.

#include "Announcer.h"

#include <algorithm>
#include <exception>
#include <iterator>
#include <set>
#include <string>
#include <utility>

#include "Connections.h"
#include "HttpSettings.h"
#include "Outcome.h"

namespace orvx::announce {

using namespace std::chrono_literals;
using nlohmann::json;

namespace {

/// Lets a pending request, which may be the first to reach the registry, end or connect.
constexpr std::chrono::milliseconds kFirstRequestGrace = 500ms;

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
    Service& service = services_[description.at("uri")];
    service.description = description;
    service.announcement = std::make_unique<Announcement>(loop_, description, counts_, changed_);
    watchHealth(service);
}

void Announcer::watchHealth(Service& service) {
    service.health = std::make_unique<HealthCheck>(loop_, children_, options_, service.description,
                                                   [this, &service](const std::string& reason) {
                                                       service.announcement->setHealth(reason);
                                                       announceIfWanted(service);
                                                   });
}

void Announcer::openContext() {
    const RegistryOptions& registry = options_.registry;
    communication::HttpConfig http = httpConfig(registry);
    http.credentials = credentials_;
    http.statistics = statistics_;
    auto context = std::make_unique<Context>();
    context->setHttpConfig(http);
    context->enableResilience(true);
    context->setCheckInterval(registry.checkInterval);
    context->setHeadTimeout(registry.checkTimeout);
    context->setRetryInterval(registry.retryInterval);
    context->setSyncCallUnregisterTimeout(options_.withdrawTimeout);
    context->setRegistrationListener(
        [this](const Announcement::Event& event) { loop_.post([=] { handleEvent(event); }); });
    context->setLogLevel(
        utility::ILogger::LogLevel::Off);  // orvx-announce reports the events itself.
    context->init();
    context_ = std::move(context);
}

void Announcer::announce() {
    try {
        if (!context_) {
            openContext();
        }
    } catch (const std::exception& error) {
        for (auto& [uri, service] : services_) {
            service.announcement->refuse(error.what());
        }
        return;
    }
    for (auto& [uri, service] : services_) {
        if (service.isRemoved) {
            continue;
        }
        service.announcement->announce(*context_->getServiceRegistryClient(), registry_);
    }
    isServing_ = true;
    startHealthChecks();
}

/// Spreads the first attempts over the interval, so that the processes do not start all at once.
void Announcer::startHealthChecks() {
    std::chrono::milliseconds sum{0};
    for (auto& [uri, service] : services_) {
        service.health->start(sum / services_.size());
        sum += options_.health.interval;
    }
}

json Announcer::update(const std::vector<json>& descriptions) {
    refresh();
    json difference{
        {"added", json::array()}, {"changed", json::array()}, {"removed", json::array()}};
    std::set<std::string> uris;
    for (const json& description : descriptions) {
        const std::string& uri = *uris.insert(description.at("uri")).first;
        const auto found = services_.find(uri);
        if (found == services_.end()) {
            add(description);
            difference["added"].push_back(uri);
        } else if (found->second.isRemoved || found->second.description != description) {
            difference[found->second.isRemoved ? "added" : "changed"].push_back(uri);
            change(found->second, description);
        }
    }
    for (auto service = services_.begin(); service != services_.end();) {
        if (uris.count(service->first) == 0 && !service->second.isRemoved) {
            difference["removed"].push_back(service->first);
            remove(service->second);
        }
        service = eraseIfRemoved(service);
    }
    return difference;
}

void Announcer::change(Service& service, const json& description) {
    const auto differs = [&](const char* key) {
        return service.description.at(key) != description.at(key);
    };
    // A command has name, host and port; other probes have the host if --ready-host gives no other.
    const bool isCommand = options_.health.kind == ProbeOptions::Kind::Command;
    const bool isProbedAnew = service.isRemoved || differs("port") ||
                              (differs("host") && (isCommand || options_.probedHost.empty())) ||
                              (differs("name") && isCommand);
    service.description = description;
    service.isRemoved = false;
    if (isProbedAnew) {
        watchHealth(service);
        service.announcement->forgetHealth();
    }
    if (context_) {
        service.announcement->change(description, *context_->getServiceRegistryClient(), registry_);
    } else {
        service.announcement =
            std::make_unique<Announcement>(loop_, description, counts_, changed_);
    }
}

void Announcer::remove(Service& service) {
    service.isRemoved = true;
    service.health->stop();
    service.announcement->retract();
}

/// Returns the next service.
Announcer::Services::iterator Announcer::eraseIfRemoved(Services::iterator service) {
    using State = Announcement::State;
    const State state = service->second.announcement->state();
    const bool isPending = state == State::Clearing || state == State::Withdrawing;
    return service->second.isRemoved && !isPending ? services_.erase(service) : std::next(service);
}

/// Announces a service whose withdrawal has ended if it is healthy and in the set again.
void Announcer::announceIfWanted(Service& service) {
    if (isServing_ && !service.isRemoved &&
        service.announcement->state() == Announcement::State::Withdrawn) {
        service.announcement->announce(*context_->getServiceRegistryClient(), registry_);
    }
}

void Announcer::handleEvent(const Announcement::Event& event) {
    const auto found = services_.find(event.status.uri);
    if (found != services_.end()) {
        found->second.announcement->handleEvent(event);
        announceIfWanted(found->second);
        if (isServing_) {  // later, callbacks of withdraw() refer to it, and it may be left
            eraseIfRemoved(found);
        }
    }
}

void Announcer::withdraw() {
    isServing_ = false;
    for (auto& [uri, service] : services_) {
        service.health->stop();
    }
    forEach(&Announcement::withdraw);
    loop_.after(kFirstRequestGrace, [this] {
        const Via via = options_.registry.unixSocket.empty() ? Via::Internet : Via::UnixSocket;
        if (nothingWasSent(statistics_->snapshot()) && !mayBeConnected(via)) {
            context_.reset();  // so that no pending request is sent afterwards
            forEach(&Announcement::confirmNothingSent);
        }
    });
}

void Announcer::withdrawAndWait() {
    if (context_) {
        context_->getServiceRegistryClient()->unregisterAllServicesFromRegistry();
    }
}

void Announcer::giveUp() {
    forEach(&Announcement::giveUp);
}

void Announcer::forEach(void (Announcement::*operation)()) {
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
            const auto found = services_.find(known.uri);
            if (found != services_.end()) {
                found->second.announcement->updateStatus(known);
            }
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
