// Hard cases for announcements, without resilience and with it, in simulated time. Each case prints
// a row of the table in docs/reliability.md; --verify compares all rows with that page.
#include "BlockingCall.h"
#include "Jitter.h"
#include "RandomHistory.h"

#include <serviceregistryclient/OrvServiceRegistryContext.h>

#include <orvx/common/XObject.h>
#include <orvx/simulation/World.h>

#include <CLI/CLI.hpp>

#include <algorithm>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <map>
#include <set>
#include <sstream>

namespace orvx::simulation {
namespace {

using common::ServiceCreate;
using common::XObject;
using communication::CommunicationStatus;
using communication::HttpResponse;
using serviceregistryclient::IOrvServiceRegistryClient;
using serviceregistryclient::OrvServiceRegistryContext;
using std::chrono::hours;
using std::chrono::milliseconds;
using std::chrono::minutes;
using std::chrono::seconds;
using testing::BlockingCall;

/// Answers each request 1 to 20 ms after its arrival.
class SlowRegistry {
  public:
    explicit SlowRegistry(World& world) : world_(world) {}

    /// Advances the clock, and answers requests when their time comes.
    void run(milliseconds duration) {
        runUntil(world_.now() + duration, [] { return false; });
    }
    /// The time until the registry holds this many entries, at most `bound`.
    milliseconds timeUntilItHolds(std::size_t count, milliseconds bound) {
        const milliseconds begin = world_.now();
        runUntil(begin + bound, [&] { return entries.size() == count; });
        return world_.now() - begin;
    }
    /// Answers no request for this time, then all of them.
    void pause(milliseconds duration) { pausedUntil_ = world_.now() + duration; }
    /// The number of entries that were checked with HEAD within this time.
    std::size_t checkedWithin(milliseconds duration) {
        checked_.clear();
        run(duration);
        return checked_.size();
    }

    /// The paths.
    std::set<std::string> entries;
    /// Whether connections fail.
    bool isAway = false;
    /// Whether the connection breaks after a DELETE was processed and before its answer.
    bool losesAnswersToDelete = false;

  private:
    void runUntil(milliseconds end, const std::function<bool()>& isDone) {
        for (bool isLate = false; !isLate && !isDone();) {
            world_.settle();
            while (const auto request = world_.takeRequest()) {
                const milliseconds latency(1 + random_.below(20));
                asked_.emplace(std::max(world_.now() + latency, pausedUntil_), *request);
            }
            milliseconds next = end;
            if (!asked_.empty()) {
                next = std::min(next, asked_.begin()->first);
            }
            if (const auto delay = world_.nextDelay()) {
                next = std::min(next, world_.now() + *delay);
            }
            isLate = next >= end;
            world_.advance(next - world_.now());
            while (!asked_.empty() && asked_.begin()->first <= world_.now()) {
                Request request = asked_.begin()->second;
                asked_.erase(asked_.begin());
                request.answer(answerTo(request));
            }
        }
    }
    HttpResponse answerTo(const Request& request) {
        using Code = HttpResponse::StatusCode;
        if (isAway) {
            return HttpResponse(CommunicationStatus::ConnectFailed);
        }
        if (request.method() == "PUT") {
            entries.insert(request.path());
            return {Code::Created, "Location: " + request.path() + "\r\n", ""};
        }
        const bool isThere = entries.count(request.path()) != 0;
        if (request.method() == "HEAD") {
            checked_.insert(request.path());
        } else {
            entries.erase(request.path());
            if (losesAnswersToDelete) {
                return HttpResponse(CommunicationStatus::ReceiveFailed);
            }
        }
        return {isThere ? Code::Ok : Code::NotFound, "", ""};
    }

    World& world_;
    Random random_{1};
    milliseconds pausedUntil_{0};
    std::multimap<milliseconds, Request> asked_;  ///< By the time of the answer.
    std::set<std::string> checked_;
};

/// A client with the default options.
struct Scene {
    explicit Scene(bool isResilient) {
        seedJitter(1);
        context.enableResilience(isResilient);
        context.setLogLevel(utility::ILogger::LogLevel::Off);
    }

    IOrvServiceRegistryClient& client() {
        if (!context.isInitiated()) {
            context.init();
        }
        return *context.getServiceRegistryClient();
    }
    static std::shared_ptr<ServiceCreate> service(int number) {
        const std::string name = std::to_string(number);
        return std::make_shared<ServiceCreate>(std::make_unique<XObject>("", name, "/" + name));
    }
    /// Announces services, one in each interval of `pause`.
    void announce(int count, milliseconds pause = milliseconds(0)) {
        for (int i = 0; i < count; ++i) {
            withdraw = client().registerServiceAtRegistry(at, service(i), nullptr);
            registry.run(pause);
        }
    }

    const common::ServiceInfo at{"registry", "registry.test", 8500};
    World world;  // destroyed after all objects that use it
    SlowRegistry registry{world};
    OrvServiceRegistryContext context;
    /// Withdraws the last service.
    IOrvServiceRegistryClient::UnregisterHandle withdraw;
};

std::string afterPauseAndRestart(bool isResilient) {
    Scene scene(isResilient);
    scene.announce(20, milliseconds(25));
    scene.registry.run(seconds(9));  // without resilience the checks are due within a second
    scene.registry.pause(seconds(6));
    scene.registry.run(minutes(1));
    scene.registry.entries.clear();
    scene.registry.run(minutes(10));
    return std::to_string(scene.registry.entries.size());
}

std::string afterAnHour(bool isResilient) {
    Scene scene(isResilient);
    scene.announce(200, milliseconds(50));
    scene.registry.run(hours(1));
    return std::to_string(scene.registry.checkedWithin(seconds(30)));
}

std::string withdrawnWithoutAnswer(bool isResilient) {
    Scene scene(isResilient);
    scene.announce(1, seconds(1));
    scene.registry.losesAnswersToDelete = true;
    scene.withdraw({});
    scene.registry.run(seconds(1));
    scene.registry.losesAnswersToDelete = false;
    scene.registry.run(hours(1));
    return scene.registry.entries.empty() ? "nothing" : "the service again";
}

std::string withdrawnWhileAway(bool isResilient) {
    Scene scene(isResilient);
    scene.announce(1, seconds(1));
    scene.registry.isAway = true;
    scene.withdraw({});
    scene.registry.run(minutes(1));
    scene.registry.isAway = false;
    scene.registry.run(hours(1));
    return scene.registry.entries.empty() ? "nothing" : "the service still";
}

// The time-out of blocking calls is in real time.
std::string withdrawnWithNothingThere(bool isResilient) {
    Scene scene(isResilient);
    const milliseconds timeout(200);
    scene.context.setSyncCallUnregisterTimeout(timeout);
    const auto begin = std::chrono::steady_clock::now();
    const bool isWithdrawn = scene.client().unregisterAllServicesFromRegistry().first;
    const bool isLate = std::chrono::steady_clock::now() - begin >= timeout;
    return std::string(isWithdrawn ? "true" : "false") +
           (isLate ? " after the unregister time-out, 30 s" : " at once");
}

// The call waits on its own thread, which sleeps while this thread advances the clock.
std::string registeredInOneCall(bool isResilient) {
    Scene scene(isResilient);
    const auto returned = std::make_shared<std::promise<void>>();
    IOrvServiceRegistryClient::ServiceSet services;
    for (int i = 0; i < 256; ++i) {
        services.insert(scene.service(i));
    }
    IOrvServiceRegistryClient& client = scene.client();
    auto call = std::make_unique<BlockingCall<bool>>([&, returned] {
        const bool areAnnounced = client.registerServicesAtRegistry(scene.at, services).first;
        returned->set_value();
        return areAnnounced;
    });
    if (!call->isWaiting()) {
        return "does not wait";
    }
    scene.registry.run(hours(1));
    const seconds patience(isResilient ? 10 : 0);
    if (returned->get_future().wait_for(patience) == std::future_status::ready) {
        return call->get() ? "true" : "false";
    }
    static_cast<void>(call.release());  // its thread sleeps until the process ends
    return "never";
}

std::string afterRestart(bool isResilient) {
    constexpr int count = 1000;
    Scene scene(isResilient);
    scene.announce(count);
    scene.registry.run(milliseconds(30100));  // without resilience all were checked just now
    scene.registry.entries.clear();
    const milliseconds time = scene.registry.timeUntilItHolds(count, hours(1));
    std::ostringstream text;
    text << std::fixed << std::setprecision(1) << std::chrono::duration<double>(time).count()
         << " s";
    return text.str();
}

struct Case {
    const char* name;
    const char* text;
    std::string (*run)(bool isResilient);
};

const Case kCases[] = {
    {"pause",
     "The registry pauses for 6 s and later restarts empty; services that are registered again, of "
     "20",
     afterPauseAndRestart},
    {"hour", "Nothing fails for an hour; services that are still checked, of 200 in one context",
     afterAnHour},
    {"lost-answer", "The answer to a withdrawal is lost; content of the registry an hour later",
     withdrawnWithoutAnswer},
    {"away",
     "A service is withdrawn while the registry is unreachable; content of the registry an hour "
     "later",
     withdrawnWhileAway},
    {"nothing", "All services are withdrawn while none is registered; the blocking call returns",
     withdrawnWithNothingThere},
    {"set", "256 services are registered in one blocking call; the call returns",
     registeredInOneCall},
    {"restart",
     "The registry restarts empty; time until all of 1,000 services are registered again",
     afterRestart},
};

std::string rowOf(const Case& one) {
    return "| `" + std::string(one.name) + "` | " + one.text + " | " + one.run(false) + " | " +
           one.run(true) + " |";
}

/// Whether the page has the row.
bool isOn(const std::string& page, const std::string& row) {
    std::ifstream file(page);
    for (std::string line; std::getline(file, line);) {
        if (line == row) {
            return true;
        }
    }
    return false;
}

}  // namespace
}  // namespace orvx::simulation

int main(int argc, char** argv) {
    using namespace orvx::simulation;
    CLI::App app("Prints the results of failures without resilience and with it");
    std::vector<std::string> names;
    std::string page;
    std::set<std::string> all;
    for (const Case& one : kCases) {
        all.insert(one.name);
    }
    app.add_option("CASE", names, "The cases to run; all by default")->check(CLI::IsMember(all));
    app.add_option("--verify", page, "A page that must have each row that is printed");
    CLI11_PARSE(app, argc, argv);
    bool isTrue = true;
    for (const Case& one : kCases) {
        if (names.empty() || std::count(names.begin(), names.end(), one.name) != 0) {
            const std::string row = rowOf(one);
            const bool isShown = page.empty() || isOn(page, row);
            std::cout << row << (isShown ? "" : "  <- not in " + page) << std::endl;
            isTrue = isTrue && isShown;
        }
    }
    return isTrue ? 0 : 1;
}
