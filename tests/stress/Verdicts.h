#pragma once

#include "ChaosOptions.h"
#include "FaultyRegistry.h"
#include "Users.h"

#include <deque>
#include <functional>
#include <iosfwd>
#include <sstream>
#include <string>
#include <vector>

namespace orvx::stress {

// The time that a busy machine, and instrumented code, may add to the promised times.
#ifdef ORVX_SANITIZED
constexpr milliseconds kAllowance{20'000};
#else
constexpr milliseconds kAllowance{3000};
#endif
/// Longer than any time that remains to be waited for.
constexpr milliseconds kPatience{30'000};

/// A guarantee, with figures, and the ways in which it was broken.
struct Verdict {
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

/// The verdicts in the order in which they were added. Used by one thread.
class Verdicts {
  public:
    Verdict& add(const std::string& promise) { return list_.emplace_back(promise); }
    /// Prints one line for each guarantee, and the longest stall. Returns false if one was broken.
    bool print(std::ostream& out, const Place& place) const;

  private:
    std::deque<Verdict> list_;
};

/// Waits until the condition holds. Returns false if it does not hold within the time.
bool settle(milliseconds bound, const std::function<bool()>& condition);

/// Prints the number of events in one line.
void printCourse(std::ostream& out, const ChaosOptions& options, const Place& place,
                 FaultyRegistry& registry);

// The verdicts that do not depend on the rules by which services are kept.

void judgeAnswers(Verdicts& verdicts, const Ledger& ledger);
/// Makes the network slow and unresponsive for the following stops.
void harmStops(FaultyRegistry& registry);
/// Judged after the last stop: there must be as many descriptors as without a connection.
Verdict& judgeStops(Verdicts& verdicts, const Place& place, FaultyRegistry& registry,
                    std::size_t descriptors);
void judgeShape(Verdicts& verdicts, const Traffic& traffic);

}  // namespace orvx::stress
