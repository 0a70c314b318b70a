#pragma once

#include <boost/beast/http/verb.hpp>
#include <chrono>
#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "EntryStore.h"

namespace orvx::registry {

/// One fault on demand. docs/registry-tool.md describes its fields.
struct Fault {
    enum class Kind { Delay, Reset, Status, Forget };

    Kind kind{};
    std::chrono::milliseconds delay{0};
    unsigned status = 0;
    std::string uuid;  ///< of the entry to forget; empty: all entries
    std::optional<boost::beast::http::verb> method{};  ///< empty: PUT, HEAD and DELETE
    std::uint64_t skip = 0;  ///< remaining requests that pass before the fault affects one
    std::optional<std::uint64_t> requests{};  ///< remaining requests to affect; none: no limit
    EntryStore::Time begin{};
    std::optional<EntryStore::Time> end{};
};

/// The effect of all faults on one request.
struct FaultEffect {
    std::chrono::milliseconds delay{0};
    bool reset = false;
    unsigned status = 0;  ///< 0: the request is answered as without faults
};

/// Reads a text with one fault per line, as a JSON object. Skips empty lines and lines that begin
/// with #. Times count from `now`. Throws a std::invalid_argument that begins with the number of
/// the line, as in `line 3: `.
std::vector<Fault> parseFaults(std::string_view text, EntryStore::Time now);

/// The faults of a registry, in their order.
///
/// Thread-safety: none; one thread at a time.
class Faults {
  public:
    /// Replaces all faults.
    void set(std::vector<Fault> faults) { faults_ = std::move(faults); }

    /// Returns the effect of the faults on the next request with that method, and applies a due
    /// `forget` to `store`. Without a method, only a `forget` without method and skip takes effect:
    /// for requests about the registry itself, such as the metrics. Throws what the store throws;
    /// the `forget` counts as carried out, because otherwise no request would succeed on a full
    /// disk.
    FaultEffect apply(std::optional<boost::beast::http::verb> method, EntryStore& store);

    /// The remaining faults, as `{"faults":[...]}`.
    nlohmann::json list(EntryStore::Time now);

    /// The number of remaining faults.
    std::size_t count(EntryStore::Time now);

  private:
    void dropSpent(EntryStore::Time now);

    std::vector<Fault> faults_;
};

}  // namespace orvx::registry
