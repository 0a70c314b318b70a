// The conditions after the faults have ended: one verdict for each guarantee.
//
// Threads: used by the main thread, when the users have ended; the clients continue. No locks.

#include "Chaos.h"

#include <algorithm>

namespace orvx::stress {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

bool Chaos::judge(std::ostream& out) {
    Verdicts verdicts;
    printCourse(out, options_, place_, registry_);
    judgeAnswers(verdicts, place_.ledger);
    judgeEntries(verdicts);
    judgeStop(verdicts);
    judgeRequests(verdicts);
    judgeShape(verdicts, place_.traffic);
    return verdicts.print(out, place_);
}

// A failed attempt is repeated after a check interval. An outstanding request ends within the
// request time-out, which also covers the longest delay.
void Chaos::judgeEntries(Verdicts& verdicts) {
    Verdict& verdict = verdicts.add("p3 what is registered and checked is in the registry");
    const auto peace = Clock::now();
    const auto bound = Announcer::kCheckInterval + 2 * Announcer::kRequestTimeout + kAllowance;
    const bool isKept = settle(bound, [this] {
        const auto uuids = registry_.entries();
        return std::all_of(singles_.begin(), singles_.end(),
                           [&](const auto& single) { return isSingleKept(*single, uuids); });
    });
    verdict.require(isKept, "a single service is missing after the bound");
    // A check may end at any time, by an answer that comes late. So the logs are read before the
    // mark, and again at the end.
    std::vector<bool> hadEnded;
    for (const auto& single : singles_) {
        hadEnded.push_back(single->announcer()->log().hasEnd());
    }
    std::vector<std::set<std::uint64_t>> crowdsEnded;
    for (Crowd& crowd : crowds_) {
        crowdsEnded.push_back(crowd.announcer().log().endedByWithdrawal());
    }
    const auto mark = Clock::now();
    verdict.figures << "singles complete after "
                    << std::chrono::duration_cast<milliseconds>(mark - peace).count() << " ms; "
                    << orphans() << " orphans of " << registry_.entries().size() << " entries";

    // Determines the duration of this observation: a working check is sent at least once while this
    // service is checked four times.
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

/// The service is in the registry, or has no check by the rules, or is not held by the client.
bool Chaos::isSingleKept(Single& single, const std::set<std::string>& entries) {
    Announcer& announcer = *single.announcer();
    const auto held = announcer.held();
    if (held.empty() || announcer.log().hasEnd()) {
        return true;
    }
    const std::string uuid = held.begin()->second->getId();
    return entries.count(uuid) > 0 || single.service().mayHaveLostItsCheck(uuid);
}

// A context had only one registration, so its log shows whether its check has ended. One end is not
// logged: a 404 during a withdrawal that was then refused.
void Chaos::judgeSingles(Verdict& verdict, Traffic::Time mark, const std::vector<bool>& hadEnded) {
    const auto uuids = registry_.entries();
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
        } else if (!isChecked && log.hasEnd()) {
            ++ended;  // since the mark
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

// It is unknown whose check ended. Known is the maximum number of ends: each ignored answer is one.
void Chaos::judgeCrowd(Verdict& verdict, Crowd& crowd, Traffic::Time mark,
                       const std::set<std::uint64_t>& hadEnded) {
    const auto uuids = registry_.entries();
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

/// The number of entries without a registration.
std::size_t Chaos::orphans() {
    auto uuids = registry_.entries();
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

// Stops the clients with operations outstanding, during faults.
void Chaos::judgeStop(Verdicts& verdicts) {
    harmStops(registry_);
    for (Unit* const unit : units_) {
        unit->ask();
    }
    for (const auto& single : singles_) {
        single->stop();
    }
    for (Crowd& crowd : crowds_) {
        crowd.stop();
    }
    judgeStops(verdicts, place_, registry_, descriptors_);
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
}

}  // namespace orvx::stress
