#pragma once

#include "KeptServices.h"
#include "Verdicts.h"

namespace orvx::stress {

/// Users of clients with resilience, a registry, and faults between them for some time. Then the
/// faults end, and the registry must converge. Used by one thread, once.
class ResilientChaos {
  public:
    explicit ResilientChaos(const ChaosOptions& options);

    void run();
    /// Prints one line for each guarantee. Returns false if one was broken.
    bool judge(std::ostream& out);

  private:
    void disturb();
    void judgeEntries(Verdicts& verdicts);
    void judgeStop(Verdicts& verdicts);
    void judgeRequests(Verdicts& verdicts);
    std::vector<std::string> lastingDifferences();
    std::vector<std::string> differences();
    void compareStatuses(KeptServices& client, const std::map<std::string, std::string>& uuids,
                         std::vector<std::string>& differences);

    const ChaosOptions options_;
    Random random_;
    Place place_;  // outlives the proxy's taps and the clients
    FaultyRegistry registry_;
    const std::size_t descriptors_;  // the number of descriptors without a connection
    std::deque<KeptServices> clients_;
    std::vector<std::unique_ptr<Unit>> members_;
    Pace pace_;
    /// The time at which the faults ended.
    std::chrono::steady_clock::time_point peace_;
    std::size_t late_ = 0;
};

}  // namespace orvx::stress
