#pragma once

#include "RunningRegistry.h"
#include "Users.h"

#include <iosfwd>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>

namespace orvx::stress {

struct ChaosOptions {
    std::uint64_t seed = 1;
    std::chrono::seconds duration{15};
    int services = 200;
    std::size_t threads = 4;
};

/// Users, a registry, and everything that can go wrong between them, for a while; then peace, in
/// which everything that is promised must hold. For one thread, once.
class Chaos {
  public:
    explicit Chaos(const ChaosOptions& options);
    ~Chaos();

    void run();
    /// Prints one line for each promise; false when one was broken.
    bool judge(std::ostream& out);

  private:
    struct Verdict;
    class Verdicts;

    void disturb();
    void draw();
    void restartRegistry();
    void loseEntries();
    void refuse();

    bool settle(milliseconds bound, const std::function<bool()>& condition);
    void judgeAnswers(Verdicts& verdicts);
    void judgeEntries(Verdicts& verdicts);
    void judgeRequests(Verdicts& verdicts);
    void judgeStop(Verdicts& verdicts);
    bool isSingleKept(Single& single, const std::set<std::string>& entries);
    void judgeSingles(Verdict& verdict, Traffic::Time mark, const std::vector<bool>& hadEnded);
    void judgeCrowd(Verdict& verdict, Crowd& crowd, Traffic::Time mark,
                    const std::set<std::uint64_t>& hadEnded);
    std::set<std::string> entries() const;
    std::size_t orphans();

    const ChaosOptions options_;
    Random random_;
    Place place_;  // outlives the proxy's taps and the clients
    std::unique_ptr<registry::RunningRegistry> registry_;
    FaultProxy proxy_;
    const std::size_t descriptors_;  // without a connection
    std::vector<std::unique_ptr<Single>> singles_;
    std::deque<Crowd> crowds_;
    std::vector<std::unique_ptr<Unit>> members_;
    std::vector<Unit*> units_;
    Pace pace_;
    std::size_t restarts_ = 0;
    std::size_t lost_ = 0;
};

}  // namespace orvx::stress
