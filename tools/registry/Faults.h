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

/// One thing that goes wrong on demand. docs/registry-tool.md describes its fields.
struct Fault {
    enum class Kind { Delay, Reset, Status, Forget };

    Kind kind{};
    std::chrono::milliseconds delay{0};
    unsigned status = 0;
    std::string uuid;                                  ///< to forget; empty: all
    std::optional<boost::beast::http::verb> method{};  ///< empty: PUT, HEAD and DELETE
    std::uint64_t skip = 0;                            ///< requests that are still let through
    std::optional<std::uint64_t> requests{};           ///< that are still met; empty: no limit
    EntryStore::Time begin{};
    std::optional<EntryStore::Time> end{};
};

/// What meets one request.
struct Fate {
    std::chrono::milliseconds delay{0};
    bool reset = false;
    unsigned status = 0;  ///< 0: the request is answered as always
};

/// Faults of a text with one JSON object a line; empty lines and lines that begin with # are none.
/// Times count from `now`. Throws a std::invalid_argument that begins with `line 3: `.
std::vector<Fault> parseFaults(std::string_view text, EntryStore::Time now);

/// The faults of a registry, in their order.
///
/// Thread-safety: none; one thread at a time.
class Faults {
  public:
    /// In place of all others.
    void set(std::vector<Fault> faults) { faults_ = std::move(faults); }

    /// Returns the effect of the faults on the next request with that method, and applies a due
    /// `forget` to `store`. Without a method, only a `forget` without method and skip takes effect:
    /// for requests about the registry itself, such as the metrics. Throws what the store throws.
    Fate meet(std::optional<boost::beast::http::verb> method, EntryStore& store);

    /// What is left, as `{"faults":[...]}`.
    nlohmann::json list(EntryStore::Time now);

    /// How many are left.
    std::size_t count(EntryStore::Time now);

  private:
    void dropSpent(EntryStore::Time now);

    std::vector<Fault> faults_;
};

}  // namespace orvx::registry
