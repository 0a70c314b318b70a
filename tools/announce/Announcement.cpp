// One service from its announcement to its withdrawal, on top of the library's asynchronous forms.
// Everything happens on the main thread. The library's threads only post to the loop, and copy
// what they pass; there is no lock.

#include "Announcement.h"

#include <algorithm>
#include <exception>

#include "Answers.h"
#include "LogRelay.h"
#include "Report.h"
#include "ServiceDescriptions.h"

namespace orvx::announce {

using namespace std::chrono_literals;
using communication::HttpResponse;
using nlohmann::json;

namespace {

constexpr std::chrono::milliseconds kFirstPause = 50ms;
constexpr std::chrono::milliseconds kLongestPause = 500ms;
/// An attempt that is under way may be the first one that reaches the registry.
constexpr std::chrono::milliseconds kGraceOfTheUnreached = 500ms;

bool isGone(const std::shared_ptr<HttpResponse>& response) {
    const auto code = response ? response->getStatusCode() : HttpResponse::StatusCode::None;
    return code == HttpResponse::StatusCode::NotFound ||
           code == HttpResponse::StatusCode::NoContent;
}

}  // namespace

const char* toString(Announcement::State state) {
    static constexpr const char* names[] = {"waiting", "announcing",  "announced", "lost",
                                            "refused", "withdrawing", "withdrawn", "left"};
    return names[static_cast<std::size_t>(state)];
}

Announcement::Announcement(EventLoop& loop, const AnnouncementSettings& settings,
                           const json& description, StateCounts& counts, Changed changed)
    : loop_(loop),
      settings_(settings),
      service_(toService(description)),
      counts_(counts),
      changed_(std::move(changed)),
      statistics_(std::make_shared<communication::ClientStatistics>()),
      since_(timestamp()) {
    ++counts_[state_];
}

Announcement::~Announcement() = default;

template <typename Member>
auto Announcement::onLoop(Member member) {
    return [this, member, start = start_](const auto&... values) {
        loop_.post([=] {
            if (start == start_) {
                (this->*member)(values...);
            }
        });
    };
}

void Announcement::openContext() {
    context_ = std::make_unique<serviceregistryclient::OrvServiceRegistryContext>();
    auto http = settings_.http;
    http.statistics = statistics_;
    context_->setHttpConfig(http);
    context_->setCheckInterval(settings_.checkInterval);
    context_->setHeadTimeout(settings_.checkTimeout);
    context_->setRetryInterval(settings_.retryInterval);
    context_->enableRetryOnHttpStatus(true);
    context_->setLoggerFactory(
        std::make_shared<LogRelay>([this](const std::string& message, int /*level*/) {
            loop_.post([=] { report("log", {{"message", message}}); });
        }));
    context_->init();
}

void Announcement::start() {
    ++start_;
    lastCheck_ = {EventLoop::Clock::now(), lastCheck_.second};
    enter(State::Announcing);
    try {
        openContext();
        auto& client = *context_->getServiceRegistryClient();
        client.addServiceRegisterStatusListener(onLoop(&Announcement::notified));
        unregister_ = client.registerServiceAtRegistry(settings_.registry, service_,
                                                       onLoop(&Announcement::answered));
    } catch (const std::exception& error) {
        context_.reset();
        enter(State::Refused, {{"reason", error.what()}});
    }
}

void Announcement::startAgainIfRefused() {
    if (state_ == State::Refused) {
        start();
    }
}

void Announcement::keepChecked() {
    const auto now = EventLoop::Clock::now();
    const auto snapshot = statistics_->snapshot();
    const auto checks =
        snapshot.byMethod.at(communication::ClientStatistics::Method::Head).completed;
    if (state_ != State::Announced || checks != lastCheck_.second) {
        lastCheck_ = {now, checks};
    } else if (now - lastCheck_.first > settings_.checkInterval + 2 * settings_.checkTimeout) {
        report("check-ended", {{"reason", "a check was not answered in time"}});
        start();
    }
}

void Announcement::answered(const Outcome& outcome) {
    if (outcome.status != Outcome::OK) {
        registrySaid_ = toText(outcome);
        enter(State::Refused, {{"reason", registrySaid_}});
    }
}

void Announcement::notified(const Model& service, bool isRegistered) {
    if (!isRegistered) {
        if (state_ == State::Announced) {
            enter(State::Lost, {{"uuid", std::exchange(uuid_, "")}});
        }
        return;
    }
    uuid_ = service->getId();
    ++timesAnnounced_;
    if (!isToBeWithdrawn()) {
        announcedSince_ = timestamp();
        enter(State::Announced, {{"uuid", uuid_}});
    }
}

void Announcement::withdraw() {
    if (isOver()) {
        return;
    }
    if (state_ == State::Waiting) {
        enter(State::Withdrawn);
        return;
    }
    withdrawalBegin_ = EventLoop::Clock::now();
    withdrawalPause_ = kFirstPause;
    enter(State::Withdrawing);
    askForWithdrawal();
}

void Announcement::askForWithdrawal() {
    if (isToBeWithdrawn()) {
        unregister_(onLoop(&Announcement::withdrawalAnswered));
    }
}

void Announcement::withdrawalAnswered(const Outcome& outcome) {
    if (!isToBeWithdrawn()) {
        return;
    }
    const bool isWithdrawn = outcome.status == Outcome::OK || isGone(outcome.httpResponse);
    const bool wasNeverReached = nothingWasSent(statistics_->snapshot());
    const bool isGraceOver = EventLoop::Clock::now() - withdrawalBegin_ >= kGraceOfTheUnreached;
    if (isWithdrawn || (wasNeverReached && isGraceOver)) {
        enter(State::Withdrawn);
        return;
    }
    registrySaid_ = toText(outcome);
    loop_.after(wasNeverReached ? kGraceOfTheUnreached : withdrawalPause_,
                [this] { askForWithdrawal(); });
    withdrawalPause_ = std::min(2 * withdrawalPause_, kLongestPause);
}

void Announcement::giveUp() {
    if (!isOver() && state_ != State::Waiting) {
        enter(State::Left, {{"reason", registrySaid_.empty() ? "no answer" : registrySaid_}});
    }
}

bool Announcement::isOver() const {
    return state_ == State::Refused || state_ == State::Withdrawn || state_ == State::Left;
}

json Announcement::status() const {
    json status = toJson(statistics_->snapshot(), timesAnnounced_);
    status["service"] = service_->getName();
    status["state"] = toString(state_);
    status["since"] = since_;
    status["timesAnnounced"] = timesAnnounced_;
    const auto set = [&status](const char* key, const std::string& text) {
        if (!text.empty()) {
            status[key] = text;
        }
    };
    set("announcedSince", announcedSince_);
    set("uuid", uuid_);
    set("registrySaid", registrySaid_);
    return status;
}

void Announcement::enter(State state, const json& details) {
    --counts_[state_];
    ++counts_[state];
    state_ = state;
    since_ = timestamp();
    report(toString(state), details);
}

void Announcement::report(const std::string& event, json details) {
    details["service"] = service_->getName();
    changed_(event, details);
}

}  // namespace orvx::announce
