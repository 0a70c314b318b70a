#pragma once

#include "ChaosOptions.h"
#include "FaultyRegistry.h"
#include "Users.h"
#include "Verdicts.h"

#include <iosfwd>
#include <string>

namespace orvx::stress {

/// Users, a registry, and faults between them for some time. Then the faults end, and every
/// guarantee must hold. Used by one thread, once.
class Chaos {
  public:
    explicit Chaos(const ChaosOptions& options);
    ~Chaos();

    void run();
    /// Prints one line for each guarantee. Returns false if one was broken.
    bool judge(std::ostream& out);

  private:
    void disturb();
    void judgeEntries(Verdicts& verdicts);
    void judgeRequests(Verdicts& verdicts);
    void judgeStop(Verdicts& verdicts);
    bool isSingleKept(Single& single, const std::set<std::string>& entries);
    void judgeSingles(Verdict& verdict, Traffic::Time mark, const std::vector<bool>& hadEnded);
    void judgeCrowd(Verdict& verdict, Crowd& crowd, Traffic::Time mark,
                    const std::set<std::uint64_t>& hadEnded);
    std::size_t orphans();

    const ChaosOptions options_;
    Random random_;
    Place place_;  // outlives the proxy's taps and the clients
    FaultyRegistry registry_;
    const std::size_t descriptors_;  // the number of descriptors without a connection
    std::vector<std::unique_ptr<Single>> singles_;
    std::deque<Crowd> crowds_;
    std::vector<std::unique_ptr<Unit>> members_;
    std::vector<Unit*> units_;
    Pace pace_;
};

}  // namespace orvx::stress
