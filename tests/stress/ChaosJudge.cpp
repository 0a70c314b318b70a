// What must hold when peace has come: one verdict for each promise.
//
// Threads: this is the main thread's, with the users gone; the clients go on. No locks.

#include "Chaos.h"

#include "Descriptors.h"
#include "Process.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <ostream>
#include <sstream>

namespace orvx::stress {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

namespace {

// What a busy machine, and instrumented code, may add to what is promised.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr milliseconds kStopBound{5000};
constexpr milliseconds kAllowance{20'000};
#else
constexpr milliseconds kStopBound{1500};
constexpr milliseconds kAllowance{3000};
#endif
/// Nothing is left to be waited for after this in any case.
constexpr milliseconds kPatience{30'000};

bool isOurs(const std::string& threadName) {
    return threadName.rfind("ORVX_", 0) == 0;
}

}  // namespace

/// A promise, with figures, and how it was broken.
struct Chaos::Verdict {
    explicit Verdict(std::string promise) : name(std::move(promise)) {}

    void require(bool good, const std::string& what) {
        if (!good) {
            violations.push_back(what);
        }
    }

    const std::string name;
    std::ostringstream figures;
    std::vector<std::string> violations;
};

class Chaos::Verdicts {
  public:
    Verdict& add(const std::string& promise) { return list_.emplace_back(promise); }
    bool print(std::ostream& out) const {
        bool isGood = true;
        for (const Verdict& verdict : list_) {
            isGood = isGood && verdict.violations.empty();
            out << verdict.name << ": " << (verdict.violations.empty() ? "kept" : "BROKEN") << "; "
                << verdict.figures.str() << '\n';
            for (const std::string& violation : verdict.violations) {
                out << "    " << violation << '\n';
            }
        }
        return isGood;
    }

  private:
    std::deque<Verdict> list_;
};

bool Chaos::judge(std::ostream& out) {
    Verdicts verdicts;
    const auto counters = proxy_.counters();
    judgeAnswers(verdicts);
    judgeEntries(verdicts);
    judgeStop(verdicts);
    judgeRequests(verdicts);
    out << "seed " << options_.seed << ": " << options_.duration.count() << " s, "
        << place_.traffic.requests() << " requests, " << counters.connections << " connections, "
        << counters.delayed << " delayed, " << counters.sliced << " sliced, " << counters.swallowed
        << " swallowed, " << counters.resets << " resets, " << counters.closes << " closes, "
        << counters.refusals << " refusals, " << restarts_ << " restarts, " << lost_ << " lost\n";
    return verdicts.print(out);
}

bool Chaos::settle(milliseconds bound, const std::function<bool()>& condition) {
    const auto end = Clock::now() + bound;
    while (!condition()) {
        if (Clock::now() > end) {
            return false;
        }
        pace_.wait(10ms);
    }
    return true;
}

void Chaos::judgeAnswers(Verdicts& verdicts) {
    Verdict& verdict = verdicts.add("p1 each operation is answered once, on the callback thread");
    verdict.require(
        settle(kPatience, [this] { return place_.ledger.counts().unanswered == 0; }),
        std::to_string(place_.ledger.counts().unanswered) + " operations are not answered");
    const auto isComplete = [this] { return place_.ledger.counts().wrongWithdrawalsOfAll == 0; };
    verdict.require(settle(kPatience, isComplete), "a withdrawal of all is not answered for each");
    const auto counts = place_.ledger.counts();
    verdict.figures << counts.operations << " operations, " << counts.answered << " answered ("
                    << counts.ok << " OK), " << counts.outstandingAtStop
                    << " outstanding at a stop; " << counts.withdrawalsOfAll
                    << " withdrawals of all; " << place_.ledger.notifications() << " notifications";
}

// A failed attempt is repeated after a check interval; what is under way ends within the request's
// time-out, and the longest delay is within that.
void Chaos::judgeEntries(Verdicts& verdicts) {
    Verdict& verdict = verdicts.add("p3 what is registered and checked is in the registry");
    const auto peace = Clock::now();
    const auto bound = Announcer::kCheckInterval + 2 * Announcer::kRequestTimeout + kAllowance;
    const bool isKept = settle(bound, [this] {
        const auto uuids = entries();
        return std::all_of(singles_.begin(), singles_.end(),
                           [&](const auto& single) { return isSingleKept(*single, uuids); });
    });
    verdict.require(isKept, "a single service is missing after the bound");
    const auto mark = Clock::now();
    verdict.figures << "singles complete after "
                    << std::chrono::duration_cast<milliseconds>(mark - peace).count() << " ms; "
                    << orphans() << " orphans of " << entries().size() << " entries";

    std::vector<bool> hadEnded;
    for (const auto& single : singles_) {
        const CheckLog& log = single->announcer()->log();
        hadEnded.push_back(log.ignored() > 0 || !log.endedByWithdrawal().empty());
    }
    std::vector<std::set<std::uint64_t>> crowdsEnded;
    for (Crowd& crowd : crowds_) {
        crowdsEnded.push_back(crowd.announcer().log().endedByWithdrawal());
    }
    // The clock of this observation: a check that lives comes at least once while this one's comes
    // four times.
    Crowd metronome(place_, "metronome", 1, 1h);
    Service& beat = metronome.services().front();
    beat.announce(metronome.announcer());
    const bool hasBeaten = settle(kPatience, [&] {
        const auto held = metronome.announcer().held();
        return !held.empty() &&
               place_.traffic.checksSince(held.begin()->second->getId(), mark) >= 4;
    });
    verdict.require(hasBeaten, "a service without any faults is not checked");

    judgeSingles(verdict, mark, hadEnded);
    for (std::size_t i = 0; i < crowds_.size(); ++i) {
        judgeCrowd(verdict, crowds_[i], mark, crowdsEnded[i]);
    }
    metronome.stop();
}

/// In the registry, or without a check by the rules, or not held at all.
bool Chaos::isSingleKept(Single& single, const std::set<std::string>& entries) {
    Announcer& announcer = *single.announcer();
    const auto held = announcer.held();
    if (held.empty() || announcer.log().ignored() > 0 ||
        !announcer.log().endedByWithdrawal().empty()) {
        return true;
    }
    const std::string uuid = held.begin()->second->getId();
    return entries.count(uuid) > 0 || single.service().mayHaveLostItsCheck(uuid);
}

// A context had one registration only, so its log tells whether its check has ended. The one end
// without a line is a 404 that came during a withdrawal which then was refused.
void Chaos::judgeSingles(Verdict& verdict, Traffic::Time mark, const std::vector<bool>& hadEnded) {
    const auto uuids = entries();
    std::size_t held = 0;
    std::size_t ended = 0;
    std::size_t silent = 0;
    for (std::size_t i = 0; i < singles_.size(); ++i) {
        Announcer& announcer = *singles_[i]->announcer();
        const std::string& name = singles_[i]->service().name();
        const CheckLog& log = announcer.log();
        verdict.require(log.timeOuts() >= log.ignored(), name + ": ignored without a time-out");
        const auto registrations = announcer.held();
        if (registrations.empty()) {
            continue;
        }
        ++held;
        const std::string uuid = registrations.begin()->second->getId();
        const bool isChecked = place_.traffic.checksSince(uuid, mark) > 0;
        if (hadEnded[i]) {
            ++ended;
            verdict.require(!isChecked, name + ": is checked though its check has ended");
        } else if (!isChecked && singles_[i]->service().mayHaveLostItsCheck(uuid)) {
            ++silent;
        } else {
            verdict.require(isChecked, name + ": is not checked, and nothing says why");
            verdict.require(uuids.count(uuid) == 1, name + ": is checked, and not in the registry");
        }
    }
    verdict.figures << "; singles: " << held << " held, " << ended << " checks ended, " << silent
                    << " silently";
}

// Who ended whose check is not known here, only how many ends there can be: each ignored answer is
// one.
void Chaos::judgeCrowd(Verdict& verdict, Crowd& crowd, Traffic::Time mark,
                       const std::set<std::uint64_t>& hadEnded) {
    const auto uuids = entries();
    const auto endedByWithdrawal = crowd.announcer().log().endedByWithdrawal();
    const auto held = crowd.announcer().held();
    std::size_t checked = 0;
    std::size_t unexplained = 0;
    for (const auto& [id, description] : held) {
        const std::string name = description->getName();
        const std::string uuid = description->getId();
        // A check may have been the last one: its 404 was ignored, and the entry stays missing.
        if (place_.traffic.checksSince(uuid, mark) > 0 && uuids.count(uuid) == 1) {
            ++checked;
            verdict.require(hadEnded.count(id) == 0, name + ": is checked though that has ended");
            continue;
        }
        const auto& services = crowd.services();
        const auto service = std::find_if(services.begin(), services.end(),
                                          [&](const Service& s) { return s.name() == name; });
        const bool isExplained =
            endedByWithdrawal.count(id) > 0 || service->mayHaveLostItsCheck(uuid);
        unexplained += isExplained ? 0 : 1;
    }
    const std::size_t ignored = crowd.announcer().log().ignored();
    verdict.require(unexplained <= ignored, "more checks have ended than answers were ignored");
    verdict.figures << "; " << crowd.services().front().name() << "...: " << held.size()
                    << " held, " << checked << " checked, " << unexplained << " ended by "
                    << ignored << " ignored answers";
}

/// Entries that no registration claims.
std::size_t Chaos::orphans() {
    auto uuids = entries();
    const auto claim = [&uuids](Announcer& announcer) {
        for (const auto& [id, description] : announcer.held()) {
            uuids.erase(description->getId());
        }
    };
    for (const auto& single : singles_) {
        claim(*single->announcer());
    }
    for (Crowd& crowd : crowds_) {
        claim(crowd.announcer());
    }
    return uuids.size();
}

// Stops with operations outstanding, amid faults.
void Chaos::judgeStop(Verdicts& verdicts) {
    Verdict& verdict = verdicts.add("p2 a stop is quick, and the last word");
    proxy_.setPlanner([](Random& random) {
        FaultProxy::Plan plan;
        plan.toClient.longestDelay = 200ms;
        plan.toServer.blackHole = random() % 2 == 0;
        return plan;
    });
    for (Unit* const unit : units_) {
        unit->ask();
    }
    for (const auto& single : singles_) {
        single->stop();
    }
    for (Crowd& crowd : crowds_) {
        crowd.stop();
    }
    const auto counts = place_.ledger.counts();
    verdict.figures << place_.stops << " stops, the longest " << place_.longestStop << " ms; "
                    << counts.outstandingAtStop << " operations were outstanding";
    verdict.require(place_.longestStop <= kStopBound.count(), "a stop took too long");
    const auto threads = testing::threadNames();
    verdict.require(std::none_of(threads.begin(), threads.end(), isOurs), "a thread is left");
    const auto isClosed = [this] {
        return proxy_.counters().open == 0 && testing::openDescriptors() == descriptors_;
    };
    verdict.require(settle(kPatience, isClosed), "a connection is left");
    verdict.require(place_.ledger.afterStop() == 0,
                    std::to_string(place_.ledger.afterStop()) + " callbacks after a stop");
    verdict.require(place_.ledger.twice() == 0,
                    std::to_string(place_.ledger.twice()) + " answers came twice");
    verdict.require(place_.ledger.onWrongThread() == 0,
                    std::to_string(place_.ledger.onWrongThread()) + " on a wrong thread");
}

void Chaos::judgeRequests(Verdicts& verdicts) {
    const Traffic& traffic = place_.traffic;
    Verdict& bounded = verdicts.add("p4 requests are bounded");
    const auto puts = traffic.puts();
    const auto checks = traffic.checks();
    bounded.figures << "in one second at most " << puts.most << " PUT of a service, " << checks.most
                    << " HEAD of an entry; " << traffic.deletes() << " DELETE for "
                    << place_.withdrawals << " withdrawals";
    bounded.require(puts.tooMany == 0, std::to_string(puts.tooMany) + " seconds: too many PUT");
    bounded.require(checks.tooMany == 0,
                    std::to_string(checks.tooMany) + " seconds: too many HEAD");
    bounded.require(traffic.deletes() <= place_.withdrawals + traffic.resends("DELETE"),
                    "more DELETE than withdrawals");

    Verdict& shape = verdicts.add("p6 each request is well-formed");
    const auto malformed = traffic.malformed();
    shape.figures << traffic.requests() << " requests";
    for (std::size_t i = 0; i < std::min<std::size_t>(malformed.size(), 5); ++i) {
        shape.require(false, "not well-formed: " + malformed[i]);
    }
}

}  // namespace orvx::stress
