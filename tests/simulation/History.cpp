// Histories: generated from a seed, played on a client and on the model, and compared after every
// event. One thread.
#include "History.h"

#include "ClientTestAccess.h"

#include <serviceregistryclient/OrvServiceRegistryContext.h>

#include <orvx/common/XObject.h>
#include <orvx/simulation/World.h>

#include <algorithm>
#include <functional>
#include <sstream>
#include <stdexcept>

namespace orvx::simulation {

namespace {

using serviceregistryclient::ClientTestAccess;
using serviceregistryclient::IOrvServiceRegistryClient;
using serviceregistryclient::OrvRegistrationResponse;
using serviceregistryclient::OrvServiceRegistryClient;
using serviceregistryclient::OrvServiceRegistryContext;

template <typename Items>
std::string listOf(const Items& items) {
    std::ostringstream text;
    for (const auto& item : items) {
        text << "\n    " << item;
    }
    return items.empty() ? " nothing" : text.str();
}

std::vector<std::string> inMilliseconds(const std::vector<Milliseconds>& durations) {
    std::vector<std::string> texts;
    for (const Milliseconds duration : durations) {
        texts.push_back(std::to_string(duration.count()) + " ms");
    }
    return texts;
}

/// A client and its model, which receive the same events.
class Pair {
  public:
    explicit Pair(const Options& options) : model_(options) {
        context_.setLoggerFactory(log_);
        options.set(context_);
        context_.init();
    }

    void happen(const Event& event) {
        switch (event.what) {
            case 'r':
                registerService(event.one);
                break;
            case 'w':
                withdraw(event.one, event.other);
                break;
            case 'u':
                withdrawAll();
                break;
            case 'l':
                setListener(event.one);
                break;
            case 'a':
                answer(event.one, event.other);
                break;
            case 'g':
                forgetEverything();
                break;
            case 't':
                advance(event.one);
                break;
            case 's':
                settle();
                break;
            case 'x':
                client().deinit();
                model_.stop();
                wire_.clear();
                break;
            case 'y':
                client().init();
                model_.start();
                break;
            default:
                throw std::invalid_argument("no such event");
        }
        compare();
        world_.runIo();
        model_.runIo();
        compare();
    }

  private:
    OrvServiceRegistryClient& client() {
        return dynamic_cast<OrvServiceRegistryClient&>(*context_.getServiceRegistryClient());
    }

    std::string label(const std::string& kind) { return kind + std::to_string(++labels_); }

    IOrvServiceRegistryClient::ResponseCallback callback(const std::string& label) {
        if (label.empty()) {
            return {};
        }
        return [this, label](const OrvRegistrationResponse& response) { tell(label, response); };
    }

    void tell(const std::string& label, const OrvRegistrationResponse& response) {
        told_.push_back(told(
            label, textOf(response),
            response.httpResponse ? static_cast<int>(response.httpResponse->getStatusCode()) : -1));
    }

    void registerService(unsigned which) {
        static const std::vector<std::string> names{"a", "b", "c", "d", "e", "f", "", "bad\xff"};
        const std::string& name = names[which % names.size()];
        const std::string called = which % 5 == 4 ? "" : label("reg");
        handles_.push_back(client().registerServiceAtRegistry(
            common::ServiceInfo("registry", "127.0.0.1", 8500),
            std::make_shared<common::ServiceCreate>(
                std::make_unique<common::XObject>("caller's", name, "")),
            callback(called)));
        model_.registerService(name, called);
    }

    void withdraw(unsigned which, unsigned kind) {
        if (handles_.empty()) {
            return;
        }
        const std::size_t handle = which % handles_.size();
        const std::string called = kind % 5 == 4 ? "" : label("withdraw");
        handles_[handle](callback(called));
        model_.withdraw(handle, called);
    }

    void withdrawAll() {
        const std::string called = label("all");
        client().unregisterAllServicesFromRegistry(
            [this, called](const std::shared_ptr<common::ServiceModel>& service,
                           const OrvRegistrationResponse& response) {
                tell(called + " " + service->getName(), response);
            });
        model_.withdrawAll(called);
    }

    void setListener(unsigned kind) {
        if (kind % 4 == 0 && remover_) {
            remover_();
            model_.removeListener();
            return;
        }
        const std::string called = label("listener");
        remover_ = client().addServiceRegisterStatusListener(
            [this, called](const std::shared_ptr<const common::ServiceModel>& service,
                           bool registered) {
                told_.push_back(called + ": " + service->getName() +
                                (registered ? " is" : " is not"));
            });
        model_.setListener(called);
    }

    void answer(unsigned which, unsigned kind) {
        if (model_.outstanding() == 0) {
            return;
        }
        // Mostly the oldest one: a request that is never answered ends the history of its service.
        const std::size_t outstanding = which % 3 == 0 ? (which / 3) % model_.outstanding() : 0;
        reply(outstanding, answerOf(model_.methodOf(outstanding), kind));
    }

    void forgetEverything() {
        for (std::size_t i = model_.outstanding(); i-- > 0;) {
            if (i < model_.outstanding() && model_.methodOf(i) == "HEAD") {
                reply(i, {"OK", 404, {}, ""});
            }
        }
    }

    Answer answerOf(const std::string& method, unsigned kind) {
        const unsigned good = kind % 16;
        if (good < 7) {
            if (method != "PUT") {
                return {"OK", 200, {}, ""};
            }
            return {"OK", good % 2 == 0 ? 201 : 200, "/x/" + std::to_string(++uuids_), ""};
        }
        const std::vector<std::string> known = model_.registryIds();
        switch (good) {
            case 7:
                return {"OK", 201,
                        "/" + (known.empty() ? std::string("1") : known[kind / 16 % known.size()]),
                        ""};
            case 8:
                return {"OK", 201, "/", ""};
            case 9:
                return {"OK", 201, std::nullopt, ""};
            case 10:
                return {"OK", 201, "no slash", "body"};
            case 11:
                return {"OK", static_cast<int>(kind / 16 % 2 == 0 ? 202 : 204), "/odd", ""};
            case 12:
            case 13:
                return {"OK", 404, {}, kind / 16 % 2 == 0 ? "" : "gone"};
            case 14:
                return {"OK", static_cast<int>(kind / 16 % 2 == 0 ? 503 : 400), {}, "busy"};
            default:
                return {kind / 16 % 2 == 0 ? "TIMED_OUT" : "CONNECT_FAILED", 0, {}, ""};
        }
    }

    void reply(std::size_t outstanding, const Answer& answer) {
        // The client's outstanding requests are in the order of the model's.
        wire_.erase(std::remove_if(wire_.begin(), wire_.end(),
                                   [](const Request& request) { return !request.isOutstanding(); }),
                    wire_.end());
        Request request = wire_.at(outstanding);
        using communication::CommunicationStatus;
        using communication::HttpResponse;
        if (answer.status == 0) {
            request.answer(HttpResponse(answer.communicationStatus == "TIMED_OUT"
                                            ? CommunicationStatus::TimedOut
                                            : CommunicationStatus::ConnectFailed));
        } else {
            request.answer(answer.status,
                           answer.location ? "Location: " + *answer.location + "\r\n" : "",
                           answer.body);
        }
        model_.answer(outstanding, answer);
    }

    void advance(unsigned which) {
        static constexpr int durations[] = {0, 1, 250, 500, 1000, 2500, 3000, 5000, 10000, 20000};
        const Milliseconds duration(durations[which % std::size(durations)]);
        world_.advance(duration);
        model_.advance(duration);
    }

    void settle() {
        told_.clear();
        world_.settle();
        expectSame("user code was told", told_, model_.settle());
    }

    template <typename Items>
    static void expectSame(const std::string& what, const Items& actual, const Items& expected) {
        if (!(actual == expected)) {
            throw Differs(what + ":" + listOf(actual) + "\n  expected:" + listOf(expected));
        }
    }

    void compare() {
        std::vector<Sent> sent;
        while (const auto request = world_.takeRequest()) {
            sent.push_back({request->method(), request->path(), request->body()});
            wire_.push_back(*request);
        }
        expectSame("requests", sent, model_.takeSent());
        expectSame("log", log_->takeLines(), model_.takeLines());
        if (const std::string wrong = model_.reconcile(world_.takeAddedDelays()); !wrong.empty()) {
            throw Differs(wrong);
        }
        expectSame("timers", inMilliseconds(world_.pendingDelays()),
                   inMilliseconds(model_.pendingDelays()));
        expectSame("table", table(), model_.table());
    }

    std::vector<std::string> table() {
        const ClientTestAccess access(client());
        std::vector<std::string> rows{"check " + std::to_string(access.checkState())};
        for (const auto& [id, service] : access.services()) {
            rows.push_back(std::to_string(id) + " state " + std::to_string(access.state(id)) +
                           " id '" + service->getId() + "' uri " + service->getUri());
        }
        return rows;
    }

    World world_;
    const std::shared_ptr<testing::RecordingLoggerFactory> log_ =
        std::make_shared<testing::RecordingLoggerFactory>();
    OrvServiceRegistryContext context_;
    Model model_;
    std::vector<IOrvServiceRegistryClient::UnregisterHandle> handles_;
    std::function<void()> remover_;
    std::vector<Request> wire_;
    std::vector<Told> told_;
    unsigned labels_ = 0;
    unsigned uuids_ = 0;
};

}  // namespace

Options optionsOf(std::uint64_t seed) {
    Random random(seed);
    Options options;
    options.retry = random.below(8) != 0;
    options.retryOnStatus = random.below(2) == 0;
    options.check = random.below(8) != 0;
    options.maxRetries = random.among<std::uint16_t>({0, 0, 1, 3});
    options.retryInterval = Milliseconds(random.among({500, 0, 20, 4000}));
    options.checkInterval = std::chrono::seconds(random.among({10, 0, 1, 4}));
    options.headTimeout = Milliseconds(random.among({3000, 0, 500, 15000}));
    return options;
}

History historyOf(std::uint64_t seed, std::size_t events) {
    constexpr unsigned kNoAnswer = 15;
    // The frequency of each letter is that of its event.
    static const std::string letters = "rrrwwullaaaaaaaaaaaaaagttttttsssssssxyyyyyy";
    Random random(~seed);
    const bool isRegistryAway = random.below(8) == 0;
    History history;
    while (history.size() < events) {
        const char what = letters[random.below(static_cast<unsigned>(letters.size()))];
        const unsigned one = random.below(256);
        const unsigned other = random.below(256);
        const bool isAnswered = !isRegistryAway || random.below(8) == 0;
        history.push_back({what, one, isAnswered ? other : kNoAnswer});
    }
    return history;
}

std::string play(const Options& options, const History& history) {
    Pair pair(options);
    for (std::size_t i = 0; i < history.size(); ++i) {
        try {
            pair.happen(history[i]);
        } catch (const std::exception& error) {
            return "event " + std::to_string(i + 1) + " (" + textOf({history[i]}) +
                   "): " + error.what();
        }
    }
    return "";
}

}  // namespace orvx::simulation
