// Convergence: a client with resilience, and a registry and a network that fail. Some time after
// the faults have ended, the conditions below must hold. One thread.
#include "Convergence.h"

#include "FailingRegistry.h"
#include "Jitter.h"
#include "RecordingLogger.h"

#include <serviceregistryclient/OrvServiceRegistryContext.h>
#include "OrvServiceRegistryClient.h"

#include <orvx/common/XObject.h>
#include <orvx/simulation/World.h>

#include <algorithm>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <sstream>
#include <stdexcept>

namespace orvx::simulation::convergence {

namespace {

using communication::CommunicationStatus;
using communication::HttpResponse;
using serviceregistryclient::IOrvServiceRegistryClient;
using serviceregistryclient::OrvRegistrationResponse;
using serviceregistryclient::OrvServiceRegistryClient;
using serviceregistryclient::OrvServiceRegistryContext;
using serviceregistryclient::RegistrationEvent;
using serviceregistryclient::RegistrationStatus;

constexpr Milliseconds kLongestRetryAfter{60000};
constexpr int kDoublingsOfBackOff = 4;

struct RegistryOptions : Options {
    explicit RegistryOptions(std::uint64_t seed) {
        Random random(seed);
        retry = random.below(8) != 0;
        check = random.below(8) != 0;
        maxRetries = random.among<std::uint16_t>({0, 0, 1, 3});
        retryInterval = Milliseconds(random.among({500, 0, 20, 4000}));
        checkInterval = std::chrono::seconds(random.among({10, 1, 4}));
        headTimeout = Milliseconds(random.among({3000, 500, 15000}));
        unregisterTimeout = Milliseconds(random.among({0, 3000, 200}));
        using Kind = FailingRegistry::Kind;
        kind = random.among({Kind::NewUuids, Kind::NewUuids, Kind::UuidsOfPaths, Kind::Renames,
                             Kind::KeepsVersions});
        // If uuids change, or nothing is checked, no client can know that two paths share an entry
        // whose uuid the other path has changed, or which the other path has deleted.
        shares =
            check && kind != Kind::Renames && kind != Kind::KeepsVersions && random.below(2) == 0;
    }

    Milliseconds unregisterTimeout;
    FailingRegistry::Kind kind;
    bool shares;
};

void expect(bool isSo, const std::string& otherwise) {
    if (!isSo) {
        throw Differs(otherwise);
    }
}

/// A callback that must be called once.
struct Call {
    std::string name;
    Milliseconds made;
    /// The number of stops and refusals at the time of the call.
    unsigned stops;
    unsigned refusals;
    /// Whether the call was made while the client was stopped.
    bool isLate;
    std::vector<std::string> told;
};

/// One registration.
struct Service {
    std::string name;
    std::string path;
    IOrvServiceRegistryClient::UnregisterHandle handle;
    std::shared_ptr<Call> call;
    /// Whether its withdrawal was requested while the client was running.
    bool isWithdrawn = false;
    /// The last values that the status listener and the registration listener received.
    bool isNotified = false;
    std::string lastEvent;

    bool isAnnounced() const {
        return !isWithdrawn && call->told == std::vector<std::string>{"OK/NONE"};
    }
};

/// A request that is on its way, or its answer.
struct Sent {
    Request request;
    /// Present if the registry has processed the request.
    std::optional<HttpResponse> response;
};

class Play {
  public:
    explicit Play(std::uint64_t seed) : options_(seed), registry_(options_.kind, options_.shares) {
        context_.setLoggerFactory(std::make_shared<testing::RecordingLoggerFactory>());
        context_.setLogLevel(utility::ILogger::LogLevel::Error);
        context_.enableResilience(true);
        options_.set(context_);
        context_.setSyncCallUnregisterTimeout(options_.unregisterTimeout);
        context_.setRegistrationListener([this](const RegistrationEvent& event) {
            services_.at(indexOf(event.status.name)).lastEvent =
                registrationEventToString(event.kind);
        });
        context_.init();
        client().addServiceRegisterStatusListener(
            [this](const std::shared_ptr<const common::ServiceModel>& service, bool registered) {
                services_.at(indexOf(service->getName())).isNotified = registered;
            });
    }

    void happen(const Event& event) {
        switch (event.what) {
            case 'r':
                registerService(event.one);
                break;
            case 'm':
                registerSet(event.one);
                break;
            case 'w':
                withdraw(event.one, event.other);
                break;
            case 'u':
                withdrawAll();
                break;
            case 'a':
                answer(event.one, event.other);
                break;
            case 'b':
                process(event.one, event.other);
                break;
            case 'p':
                timeOutAll();
                break;
            case 'h':
                settle(Milliseconds(1));
                break;
            case 't':
                advance(durationOf(event.one));
                break;
            case 'e':
                loseEntries(event.one);
                break;
            case 'x':
                stop(event.one);
                break;
            case 'y':
                start();
                break;
            default:
                throw std::invalid_argument("no such event");
        }
        collect();
        expect(told_.empty(), told_);
    }

    /// Ends the faults, and waits until the client must have converged.
    void converge() {
        start();
        const Milliseconds step =
            std::max(options_.retryInterval, Milliseconds(10)) * (1 << kDoublingsOfBackOff);
        const Milliseconds asked = std::max(retryAfter_ - world_.now(), Milliseconds(0));
        settle(2 * options_.checkInterval + step + asked);
        expect(told_.empty(), told_);
        expectEntries();
        expectCalls();
        expectStatuses();
    }

  private:
    OrvServiceRegistryClient& client() {
        return dynamic_cast<OrvServiceRegistryClient&>(*context_.getServiceRegistryClient());
    }
    static std::size_t indexOf(const std::string& name) { return std::stoul(name.substr(1)); }

    // The events.

    std::shared_ptr<Call> call(const std::string& name) {
        calls_.push_back(
            std::make_shared<Call>(Call{name, world_.now(), stops_, refusals_, !isRunning_, {}}));
        return calls_.back();
    }
    Service& service(unsigned number) {
        const std::string name = "n" + std::to_string(services_.size());
        const std::string path = "/" + std::to_string(number % paths);
        const auto known = context_.getRegistrations();
        if (std::none_of(known.begin(), known.end(),
                         [&](const RegistrationStatus& one) { return one.uri == path; })) {
            notBefore_.erase(path);  // the entry is new
        }
        services_.push_back({name, path, {}, call("registration of " + name), false, false, ""});
        return services_.back();
    }
    static std::shared_ptr<common::ServiceCreate> descriptionOf(const Service& service) {
        return std::make_shared<common::ServiceCreate>(
            std::make_unique<common::XObject>("", service.name, service.path));
    }

    void registerService(unsigned path) {
        const std::size_t index = services_.size();
        const auto description = descriptionOf(service(path));
        auto handle = client().registerServiceAtRegistry(
            registryInfo_, description,
            [this, index](const OrvRegistrationResponse& response) { toldOf(index, response); });
        services_[index].handle = std::move(handle);
    }

    /// The paths of a set differ, because the order within a set is that of addresses.
    void registerSet(unsigned path) {
        IOrvServiceRegistryClient::ServiceSet set;
        for (unsigned i = 0; i < 3; ++i) {
            set.insert(descriptionOf(service((path % 2) + 2 * i)));
        }
        const auto handles = client().registerServicesAtRegistry(
            registryInfo_, set,
            [this](const std::shared_ptr<common::ServiceModel>& one,
                   const OrvRegistrationResponse& response) {
                toldOf(indexOf(one->getName()), response);
            });
        for (const auto& [one, handle] : handles) {
            services_[indexOf(one->getName())].handle = handle;
        }
    }

    void withdraw(unsigned which, unsigned kind) {
        if (services_.empty()) {
            return;
        }
        // Mostly one of the latest, because the others are withdrawn already.
        const std::size_t last = std::min<std::size_t>(services_.size(), which % 4 == 0 ? 256 : 8);
        Service& service = services_[services_.size() - 1 - (which / 4) % last];
        service.isWithdrawn = service.isWithdrawn || isRunning_;
        if (kind % 5 == 4) {
            service.handle({});
            return;
        }
        service.handle(
            [this, called = call("withdrawal of " + service.name)](
                const OrvRegistrationResponse& response) { toldOfWithdrawal(*called, response); });
    }

    void withdrawAll() {
        std::map<std::string, std::shared_ptr<Call>> called;
        for (const RegistrationStatus& status : context_.getRegistrations()) {
            Service& service = services_[indexOf(status.name)];
            service.isWithdrawn = service.isWithdrawn || isRunning_;
            called.emplace(status.name, call("withdrawal of all, of " + status.name));
        }
        client().unregisterAllServicesFromRegistry(
            [this, called](const std::shared_ptr<common::ServiceModel>& service,
                           const OrvRegistrationResponse& response) {
                toldOfWithdrawal(*called.at(service->getName()), response);
            });
    }

    void answer(unsigned which, unsigned kind) {
        if (wire_.empty()) {
            return;
        }
        const std::size_t at = which % 3 == 0 ? (which / 3) % wire_.size() : 0;
        Sent sent = wire_[at];
        wire_.erase(wire_.begin() + static_cast<std::ptrdiff_t>(at));
        const unsigned variety = kind / 20;
        if (sent.response) {
            deliver(sent, variety);
            return;
        }
        Request& request = sent.request;
        switch (kind % 20) {
            case 10:
                registry_.act(request, variety);
                request.answer(HttpResponse(CommunicationStatus::ReceiveFailed));
                break;
            case 11:
                request.answer(HttpResponse(CommunicationStatus::ConnectFailed));
                break;
            case 12:
                request.answer(503, retryAfter(request, variety));
                break;
            case 13:
                request.answer(429, retryAfter(request, variety));
                break;
            case 14:
                ++refusals_;
                request.answer(variety % 2 == 0 ? 400 : 403);
                break;
            case 15:
                registry_.act(request, variety);
                request.answer(504);
                break;
            case 16:
                request.answer(variety % 2 == 0 ? 502 : 408);
                break;
            case 17:
                request.answer(HttpResponse(CommunicationStatus::TimedOut));
                break;
            case 18:
                registry_.act(request, variety);
                request.answer(HttpResponse(CommunicationStatus::TimedOut));
                break;
            case 19:
                if (request.method() == "PUT") {
                    registry_.act(request, variety);
                    request.answer(201, variety % 2 == 0 ? "Location: /\r\n" : "");
                    break;
                }
                [[fallthrough]];
            default:
                deliver(sent, variety);
        }
    }

    /// The registry processes a request now, and answers it later: it may answer two requests in
    /// another order than it processes them.
    void process(unsigned which, unsigned kind) {
        if (wire_.empty()) {
            return;
        }
        Sent& sent = wire_[which % wire_.size()];
        if (!sent.response && sent.request.method() != "HEAD") {
            sent.response = registry_.act(sent.request, kind);
        }
    }

    /// Not for a check: its answer may come after the client has sent another request.
    std::string retryAfter(const Request& request, unsigned variety) {
        const Milliseconds now = world_.now();
        const std::vector<std::pair<std::string, Milliseconds>> values{
            {"2", now + Milliseconds(2000)},
            {"soon", now},
            {"86400", now + kLongestRetryAfter},
            {"Thu, 01 Jan 2026 00:00:05 GMT", Milliseconds(5000)}};
        const auto& [value, end] = values[variety % values.size()];
        retryAfter_ = std::max(retryAfter_, end);
        if (request.isOutstanding() && request.method() != "HEAD") {
            notBefore_[request.path()] = end;
        }
        return "Retry-After: " + value + "\r\n";
    }

    /// Answers the request, which the registry processes now unless it has done so before.
    void deliver(Sent& sent, unsigned variety) {
        if (!sent.response) {
            sent.response = registry_.act(sent.request, variety);
        }
        if (sent.request.isOutstanding() && sent.request.method() == "PUT") {
            registry_.told(*sent.response);
        }
        sent.request.answer(*sent.response);
    }

    void timeOutAll() {
        for (Sent& sent : std::exchange(wire_, {})) {
            sent.request.answer(HttpResponse(CommunicationStatus::TimedOut));
        }
    }

    /// If checks are off, the client cannot notice a loss.
    void loseEntries(unsigned which) {
        if (!options_.check) {
            return;
        }
        if (which % 4 == 0) {
            registry_.forgetAll();
        } else {
            registry_.forget(which / 4);
        }
    }

    /// The registry processes some of the outstanding requests immediately, and never processes the
    /// others: no client could handle a request that is processed after later ones.
    void stop(unsigned which) {
        collect();
        if (!isRunning_) {
            return;
        }
        ++stops_;
        client().deinit();
        isRunning_ = false;
        for (const auto& call : calls_) {
            expect(call->isLate || !call->told.empty(), call->name + " waits over a stop");
        }
        for (std::size_t i = 0; i < wire_.size(); ++i) {
            if (!wire_[i].response && (which >> (i % 8) & 1U) != 0) {
                registry_.act(wire_[i].request, 0);
            }
        }
        wire_.clear();
    }

    void start() {
        client().init();
        isRunning_ = true;
    }

    static Milliseconds durationOf(unsigned which) {
        static constexpr int durations[] = {1, 20, 250, 500, 1000, 2500, 3000, 5000, 10000, 20000};
        return Milliseconds(durations[which % std::size(durations)]);
    }

    /// Callbacks run immediately, at the time of their events.
    void advance(Milliseconds duration) {
        const Milliseconds end = world_.now() + duration;
        world_.settle();
        while (const auto delay = world_.nextDelay()) {
            if (world_.now() + *delay > end) {
                break;
            }
            world_.advance(*delay);
            world_.settle();
            collect();
        }
        world_.advance(end - world_.now());
        world_.settle();
    }

    /// The registry answers everything immediately and with success.
    void settle(Milliseconds duration) {
        const Milliseconds end = world_.now() + duration;
        for (unsigned steps = 0;; ++steps) {
            expect(steps < 50000, "the requests do not end");
            world_.settle();
            collect();
            if (!wire_.empty()) {
                Sent sent = wire_.front();
                wire_.erase(wire_.begin());
                deliver(sent, steps);
                continue;
            }
            const auto delay = world_.nextDelay();
            if (!delay || world_.now() + *delay > end) {
                break;
            }
            world_.advance(*delay);
        }
        world_.advance(end - world_.now());
        world_.settle();
    }

    /// Sorted, so that the order does not depend on addresses.
    void collect() {
        std::vector<Request> sent;
        while (auto request = world_.takeRequest()) {
            const auto notBefore = notBefore_.find(request->path());
            expect(notBefore == notBefore_.end() || notBefore->second <= world_.now(),
                   request->method() + " " + request->path() + " before its Retry-After");
            sent.push_back(std::move(*request));
        }
        std::sort(sent.begin(), sent.end(), [](const Request& one, const Request& other) {
            return std::make_tuple(one.method(), one.path(), one.body()) <
                   std::make_tuple(other.method(), other.path(), other.body());
        });
        for (Request& request : sent) {
            wire_.push_back({std::move(request), std::nullopt});
        }
    }

    // The outcomes.

    /// Stores a failure for later, because the client catches exceptions of a callback.
    void expectTold(bool isSo, const std::string& otherwise) {
        if (!isSo && told_.empty()) {
            told_ = otherwise;
        }
    }

    void toldOf(std::size_t index, const OrvRegistrationResponse& response) {
        const Service& service = services_[index];
        Call& call = *service.call;
        call.told.push_back(textOf(response));
        using Response = OrvRegistrationResponse;
        const bool isStopped = call.isLate || call.stops != stops_ || !isRunning_;
        const bool mayGiveUp =
            call.refusals != refusals_ || !options_.retry || options_.maxRetries != 0;
        expectTold(response.status == Response::OK ||
                       (response.errorCode == Response::OTHER && service.isWithdrawn) ||
                       (response.errorCode == Response::SERVICE_REGISTRY_ERROR && mayGiveUp) ||
                       (response.errorCode == Response::DELEGATOR_NOT_INITIATED && isStopped),
                   call.name + " was told " + call.told.back());
    }

    void toldOfWithdrawal(Call& call, const OrvRegistrationResponse& response) {
        call.told.push_back(textOf(response));
        using Response = OrvRegistrationResponse;
        const bool isStopped = call.isLate || call.stops != stops_ || !isRunning_;
        const Milliseconds waited = world_.now() - call.made;
        const Milliseconds timeout = options_.unregisterTimeout;
        const bool isTimed = timeout > Milliseconds(0);
        expectTold(isStopped || !isTimed || waited <= timeout,
                   call.name + " waited for " + std::to_string(waited.count()) + " ms");
        expectTold(response.status == Response::OK ||
                       (response.errorCode == Response::TIMEOUT && isTimed && waited >= timeout) ||
                       (response.errorCode == Response::SERVICE_REGISTRY_ERROR &&
                        call.refusals != refusals_) ||
                       (response.errorCode == Response::DELEGATOR_NOT_INITIATED && isStopped),
                   call.name + " was told " + call.told.back());
    }

    // The conditions at the end.

    /// The latest description for each path that is announced and not withdrawn.
    void expectEntries() const {
        std::multimap<std::string, std::string> held;
        for (const FailingRegistry::Entry& entry : registry_.entries()) {
            // An entry whose uuid never reached the client can only be removed by the registry's
            // expiry.
            if (options_.kind != FailingRegistry::Kind::KeepsVersions || entry.isTold) {
                held.emplace(entry.path, entry.name);
            }
        }
        std::map<std::string, std::string> latest;
        for (const Service& service : services_) {
            if (service.isAnnounced()) {
                latest[registry_.leadsTo(service.path)] = service.name;
            }
        }
        const std::multimap<std::string, std::string> expected(latest.begin(), latest.end());
        std::ostringstream text;
        text << "the registry holds:";
        for (const auto& [path, name] : held) {
            text << ' ' << path << ' ' << name << ';';
        }
        text << " expected:";
        for (const auto& [path, name] : expected) {
            text << ' ' << path << ' ' << name << ';';
        }
        expect(held == expected, text.str());
    }

    void expectCalls() const {
        for (const auto& call : calls_) {
            expect(call->told.size() == 1,
                   call->name + " was told " + std::to_string(call->told.size()) + " times");
        }
    }

    void expectStatuses() {
        std::set<std::string> known;
        for (const RegistrationStatus& status : context_.getRegistrations()) {
            known.insert(status.name);
            expect(status.state == RegistrationStatus::State::Announced,
                   status.name + " is " + registrationStateToString(status.state));
            const auto& entries = registry_.entries();
            const std::string path = registry_.leadsTo(services_[indexOf(status.name)].path);
            expect(std::any_of(entries.begin(), entries.end(),
                               [&](const FailingRegistry::Entry& entry) {
                                   return entry.path == path && entry.uuid == status.uuid;
                               }),
                   status.name + " has another uuid: " + status.uuid);
        }
        for (const Service& service : services_) {
            const bool isAnnounced = service.isAnnounced();
            expect(isAnnounced == (known.count(service.name) != 0),
                   service.name + (isAnnounced ? " has no status" : " has a status"));
            expect(isAnnounced == service.isNotified,
                   service.name + ": the status listener was told otherwise");
            const bool isEnded = service.lastEvent.empty() || service.lastEvent == "withdrawn";
            expect(isAnnounced != isEnded && service.lastEvent != "lost" &&
                       service.lastEvent != "unreachable",
                   service.name + ": its last event was '" + service.lastEvent + "'");
        }
    }

    static constexpr unsigned paths = 6;

    const RegistryOptions options_;
    World world_;
    FailingRegistry registry_;
    std::vector<Service> services_;
    std::vector<std::shared_ptr<Call>> calls_;
    OrvServiceRegistryContext context_;
    const common::ServiceInfo registryInfo_{"registry", "127.0.0.1", 8500};
    std::vector<Sent> wire_;
    bool isRunning_ = true;
    unsigned stops_ = 0;
    unsigned refusals_ = 0;
    /// A call that a callback must not have received.
    std::string told_;
    /// The end of the last Retry-After of each PUT and DELETE, by path.
    std::map<std::string, Milliseconds> notBefore_;
    /// The end of the latest Retry-After.
    Milliseconds retryAfter_{0};
};

}  // namespace

History historyOf(std::uint64_t seed, std::size_t events) {
    // The frequency of each letter is that of its event.
    static const std::string letters = "rrrrmwwwwwuaaaaaaaaaaaaaaaaaaaaaaaabbbbphhtttttttteexyyyyy";
    constexpr unsigned noAnswer = 17;
    Random random(~seed);
    const bool isAway = random.below(8) == 0;
    History history;
    while (history.size() < events) {
        const char what = letters[random.below(static_cast<unsigned>(letters.size()))];
        const unsigned one = random.below(256);
        const unsigned other = random.below(256);
        history.push_back({what, one, isAway && random.below(8) != 0 ? noAnswer : other});
    }
    return history;
}

std::string play(std::uint64_t seed, const History& history) {
    seedJitter(seed);
    Play play(seed);
    try {
        for (const Event& event : history) {
            play.happen(event);
        }
        play.converge();
    } catch (const std::exception& error) {
        return error.what();
    }
    return "";
}

}  // namespace orvx::simulation::convergence
