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

/// A promise, with figures, and how it was broken.
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

/// In the order in which they were added. For one thread.
class Verdicts {
  public:
    Verdict& add(const std::string& promise) { return list_.emplace_back(promise); }
    /// Prints one line for each promise; false when one was broken.
    bool print(std::ostream& out) const;

  private:
    std::deque<Verdict> list_;
};

/// False when the condition does not hold within that time.
bool settle(milliseconds bound, const std::function<bool()>& condition);

/// What has happened, in one line.
void printCourse(std::ostream& out, const ChaosOptions& options, const Place& place,
                 FaultyRegistry& registry);

// The verdicts that do not depend on the rules by which services are kept.

void judgeAnswers(Verdicts& verdicts, const Ledger& ledger);
/// Makes the network slow and deaf for the stops to come.
void harmStops(FaultyRegistry& registry);
/// After the last stop, with as many descriptors as there were without a connection.
Verdict& judgeStops(Verdicts& verdicts, const Place& place, FaultyRegistry& registry,
                    std::size_t descriptors);
void judgeShape(Verdicts& verdicts, const Traffic& traffic);

}  // namespace orvx::stress
