// Chaos with resilience: the faults, and the comparison of the registry's list with the services
// that are announced and not withdrawn.
//
// Threads: used by the main thread, which owns everything and starts the users. The clients
// continue while it judges. No locks.

#include "ResilientChaos.h"

#include "Descriptors.h"

#include <algorithm>
#include <nlohmann/json.hpp>

namespace orvx::stress {

using namespace std::chrono_literals;
using serviceregistryclient::RegistrationStatus;
using Clock = std::chrono::steady_clock;

namespace {

/// Of the machine. The shortest time-out of a check is three times as long.
constexpr milliseconds kShortStall{100};

milliseconds upTo(Random& random, int most) {
    return milliseconds(std::uniform_int_distribution<int>(0, most)(random));
}

}  // namespace

ResilientChaos::ResilientChaos(const ChaosOptions& options)
    : options_(options),
      random_(options.seed),
      registry_(options.seed, place_.traffic.tapMaker()),
      descriptors_(testing::openDescriptors()) {
    place_.port = registry_.port();
    const int services = options.services / 3;
    clients_.emplace_back(place_, "kept", services, Announcer::Options{300ms, 0, 16, true, 3s});
    clients_.emplace_back(place_, "hasty", services, Announcer::Options{2s, 0, 4, true, 200ms});
    clients_.emplace_back(place_, "limited", options.services - 2 * services,
                          Announcer::Options{600ms, 3, 16, true, 1s});
    for (KeptServices& client : clients_) {
        for (auto& member : client.units()) {
            members_.push_back(std::move(member));
        }
    }
}

void ResilientChaos::run() {
    std::vector<Unit*> units;
    for (const auto& member : members_) {
        units.push_back(member.get());
    }
    Users users(units, options_.threads, options_.seed + 1);
    disturb();
    users.stop();
    // During the faults: it is unknown whether a withdrawal was accepted before a stop.
    settle(kPatience, [this] {
        bool isCertain = true;
        for (KeptServices& client : clients_) {
            for (KeptService& service : client.services()) {
                service.withdrawDoubtful();
                isCertain = isCertain && service.isCertain();
            }
        }
        return isCertain;
    });
    if (random_() % 2 == 0) {
        registry_.restart();
    }
    registry_.cease();
    peace_ = Clock::now();
}

void ResilientChaos::disturb() {
    const auto end = Clock::now() + options_.duration;
    do {
        switch (random_() % 8) {
            case 0:
                clients_[random_() % clients_.size()].restart(upTo(random_, 500));
                break;
            case 1:
                registry_.pause();
                break;
            default:
                registry_.disturb();
        }
        pace_.wait(100ms + upTo(random_, 500));
    } while (Clock::now() < end);
}

bool ResilientChaos::judge(std::ostream& out) {
    Verdicts verdicts;
    printCourse(out, options_, place_, registry_);
    judgeEntries(verdicts);
    judgeAnswers(verdicts, place_.ledger);
    judgeStop(verdicts);
    judgeRequests(verdicts);
    judgeShape(verdicts, place_.traffic);
    return verdicts.print(out, place_);
}

// A request that is outstanding when the faults end is answered or ends within its time-out, and so
// does one more, after the longest step of the back-off. The next check finds a loss.
void ResilientChaos::judgeEntries(Verdicts& verdicts) {
    Verdict& verdict = verdicts.add("p3 the registry holds what is announced and not withdrawn");
    const auto bound = 2 * Announcer::kCheckInterval + 16 * Announcer::kRetryInterval +
                       2 * Announcer::kRequestTimeout;
    settle(bound + kAllowance, [this] { return differences().empty(); });
    const auto duration = std::chrono::duration_cast<milliseconds>(Clock::now() - peace_);
    for (const std::string& difference : lastingDifferences()) {
        verdict.require(false, difference);
    }
    std::size_t services = 0;
    std::size_t registrations = 0;
    for (KeptServices& client : clients_) {
        services += client.services().size();
        registrations += client.announcer().heldCount();
    }
    verdict.figures << services << " services, " << registrations << " registrations, "
                    << registry_.entries().size() << " entries after " << duration.count()
                    << " ms; " << late_
                    << " of a PUT that came to the registry after its client had given it up";
}

/// The differences after a time without faults: the state does not change any more. A stall makes
/// the answer to a check come late, and the service is unreachable until the next one. So a
/// difference that follows a stall says nothing; then only a time without a stall decides.
std::vector<std::string> ResilientChaos::lastingDifferences() {
    const auto end = Clock::now() + kPatience;
    std::vector<std::string> found;
    std::vector<std::string> excused;
    while (true) {
        const auto begin = Clock::now();
        pace_.wait(2 * Announcer::kCheckInterval);
        found = differences();
        const milliseconds stall =
            std::max(place_.stalls.longest(begin), place_.traffic.longestCheck(begin));
        if (stall <= kShortStall || (found.empty() && excused.empty())) {
            return found;
        }
        excused.insert(excused.end(), found.begin(), found.end());
        const auto now = Clock::now();
        if (now > end) {
            excused.push_back("no time without a stall; the last one had " +
                              std::to_string(stall.count()) + " ms");
            return excused;
        }
        settle(std::chrono::duration_cast<milliseconds>(end - now),
               [this] { return differences().empty(); });
    }
}

/// The differences between the registry's list and the expected list.
std::vector<std::string> ResilientChaos::differences() {
    std::vector<std::string> differences;
    std::map<std::string, std::string> descriptions;
    std::map<std::string, std::string> uuids;
    for (const auto& entry : registry_.list()) {
        descriptions.emplace(entry.at("path"), entry.at("service").value("description", ""));
        uuids.emplace(entry.at("path"), entry.at("uuid"));
    }
    late_ = 0;
    for (KeptServices& client : clients_) {
        for (const KeptService& service : client.services()) {
            const std::string expected = service.latest();
            const auto found = descriptions.find(service.path());
            const std::string held = found == descriptions.end() ? "" : found->second;
            descriptions.erase(service.path());
            if (!service.isAnswered()) {
                differences.push_back(service.path() + ": a registration is not answered");
            }
            if (held == expected) {
                continue;
            }
            if (!held.empty() && place_.traffic.cameLate(service.path(), held)) {
                ++late_;
            } else {
                differences.push_back(service.path() + ": the registry holds '" + held +
                                      "', expected '" + expected + "'");
            }
        }
        compareStatuses(client, uuids, differences);
    }
    for (const auto& [path, description] : descriptions) {
        differences.push_back(path + ": no service has this path");
    }
    return differences;
}

/// A registration that is not withdrawn is announced with its entry's uuid, and there are no other
/// registrations.
void ResilientChaos::compareStatuses(KeptServices& client,
                                     const std::map<std::string, std::string>& uuids,
                                     std::vector<std::string>& differences) {
    std::map<std::string, std::size_t> known;
    for (const RegistrationStatus& status : client.announcer().registrations()) {
        ++known[status.uri];
        const auto uuid = uuids.find(status.uri);
        if (status.state != RegistrationStatus::State::Announced || uuid == uuids.end() ||
            uuid->second != status.uuid) {
            differences.push_back(status.uri + " is " + registrationStateToString(status.state) +
                                  " with the uuid '" + status.uuid + "'");
        }
    }
    for (const KeptService& service : client.services()) {
        if (known[service.path()] != service.live()) {
            differences.push_back(service.path() + ": " + std::to_string(known[service.path()]) +
                                  " registrations are known of " + std::to_string(service.live()));
        }
    }
}

// Stops the clients with operations outstanding, during faults: with resilience each of them is
// answered.
void ResilientChaos::judgeStop(Verdicts& verdicts) {
    harmStops(registry_);
    for (const auto& member : members_) {
        member->ask();
    }
    for (KeptServices& client : clients_) {
        client.stop();
    }
    Verdict& verdict = judgeStops(verdicts, place_, registry_, descriptors_);
    verdict.require(place_.ledger.counts().outstandingAtStop == 0,
                    "an operation is not answered by a stop");
}

// A lost entry is registered again. After a restart of the registry or of a client all entries are
// checked once more.
void ResilientChaos::judgeRequests(Verdicts& verdicts) {
    Verdict& verdict = verdicts.add("p4 requests are bounded");
    const auto puts = place_.traffic.puts(2);
    const auto checks = place_.traffic.checksAndRecoveries();
    verdict.figures << "in one second at most " << puts.most << " PUT of a service, " << checks.most
                    << " HEAD of an entry; " << place_.traffic.deletes() << " DELETE for "
                    << place_.withdrawals << " withdrawals";
    verdict.require(puts.tooMany == 0, std::to_string(puts.tooMany) + " seconds: too many PUT");
    verdict.require(checks.tooMany == 0,
                    std::to_string(checks.tooMany) + " seconds: too many HEAD");
}

}  // namespace orvx::stress
