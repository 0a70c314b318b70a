// Verdicts that are the same with resilience and without.
//
// Threads: used by one thread, when the users have ended; the clients continue. No locks.

#include "Verdicts.h"

#include "Descriptors.h"
#include "Process.h"
#include "StopBound.h"

#include <algorithm>
#include <ostream>

namespace orvx::stress {

using namespace std::chrono_literals;

namespace {

bool isOurs(const std::string& threadName) {
    return threadName.rfind("ORVX_", 0) == 0;
}

}  // namespace

bool Verdicts::print(std::ostream& out, const Place& place) const {
    bool isGood = true;
    for (const Verdict& verdict : list_) {
        isGood = isGood && verdict.violations.empty();
        out << verdict.name << ": " << (verdict.violations.empty() ? "kept" : "BROKEN") << "; "
            << verdict.figures.str() << '\n';
        for (const std::string& violation : verdict.violations) {
            out << "    " << violation << '\n';
        }
    }
    out << "the longest stall of this program: " << place.stalls.longest().count() << " ms\n";
    return isGood;
}

bool settle(milliseconds bound, const std::function<bool()>& condition) {
    const auto end = std::chrono::steady_clock::now() + bound;
    Pace pace;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        pace.wait(10ms);
    }
    return true;
}

void printCourse(std::ostream& out, const ChaosOptions& options, const Place& place,
                 FaultyRegistry& registry) {
    const auto counters = registry.proxy().counters();
    out << "seed " << options.seed << ": " << options.duration.count() << " s, "
        << place.traffic.requests() << " requests, " << counters.connections << " connections, "
        << counters.delayed << " delayed, " << counters.sliced << " sliced, " << counters.swallowed
        << " swallowed, " << counters.resets << " resets, " << counters.closes << " closes, "
        << counters.refusals << " refusals, " << registry.pauses() << " pauses, "
        << registry.restarts() << " restarts, " << registry.lost() << " lost\n";
}

void judgeAnswers(Verdicts& verdicts, const Ledger& ledger) {
    Verdict& verdict = verdicts.add("p1 each operation is answered once, on the callback thread");
    verdict.require(settle(kPatience, [&] { return ledger.counts().unanswered == 0; }),
                    std::to_string(ledger.counts().unanswered) + " operations are not answered");
    const auto isComplete = [&] { return ledger.counts().wrongWithdrawalsOfAll == 0; };
    verdict.require(settle(kPatience, isComplete), "a withdrawal of all is not answered for each");
    const auto counts = ledger.counts();
    verdict.figures << counts.operations << " operations, " << counts.answered << " answered ("
                    << counts.ok << " OK), " << counts.outstandingAtStop
                    << " outstanding at a stop; " << counts.withdrawalsOfAll
                    << " withdrawals of all; " << ledger.notifications() << " notifications";
}

void harmStops(FaultyRegistry& registry) {
    registry.proxy().setPlanner([](Random& random) {
        FaultProxy::Plan plan;
        plan.toClient.longestDelay = 200ms;
        plan.toServer.blackHole = random() % 2 == 0;
        return plan;
    });
}

Verdict& judgeStops(Verdicts& verdicts, const Place& place, FaultyRegistry& registry,
                    std::size_t descriptors) {
    Verdict& verdict = verdicts.add("p2 a stop is quick, and the last word");
    const Ledger& ledger = place.ledger;
    verdict.figures << place.stops << " stops, the longest " << place.longestStop << " ms; "
                    << ledger.counts().outstandingAtStop << " operations were outstanding";
    verdict.require(place.longestStop <= testing::kStopBound.count(), "a stop took too long");
    const auto threads = testing::threadNames();
    verdict.require(std::none_of(threads.begin(), threads.end(), isOurs), "a thread is left");
    const auto isClosed = [&] {
        return registry.proxy().counters().open == 0 && testing::openDescriptors() == descriptors;
    };
    verdict.require(settle(kPatience, isClosed), "a connection is left");
    verdict.require(ledger.afterStop() == 0,
                    std::to_string(ledger.afterStop()) + " callbacks after a stop");
    verdict.require(ledger.twice() == 0, std::to_string(ledger.twice()) + " answers came twice");
    verdict.require(ledger.onWrongThread() == 0,
                    std::to_string(ledger.onWrongThread()) + " on a wrong thread");
    return verdict;
}

void judgeShape(Verdicts& verdicts, const Traffic& traffic) {
    Verdict& verdict = verdicts.add("p6 each request is well-formed");
    const auto malformed = traffic.malformed();
    verdict.figures << traffic.requests() << " requests";
    for (std::size_t i = 0; i < std::min<std::size_t>(malformed.size(), 5); ++i) {
        verdict.require(false, "not well-formed: " + malformed[i]);
    }
}

}  // namespace orvx::stress
