#pragma once

#include "Source.h"

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace orvx::benchmarks {

/// The beginning of a changed service; the time of the change follows, in nanoseconds.
inline constexpr std::string_view kChanged = "{\"changed\":";

/// Readers of a registry's stream of changes, without the checks, from now on.
class Watchers : public Source {
  public:
    Watchers(std::uint16_t port, std::size_t count);
    ~Watchers() override;

    /// Throws if a stream ends.
    void receive() override;

    std::size_t size() const { return watchers_.size(); }
    /// The number of events of changes at all watchers so far.
    std::size_t changes() const { return lags_.size(); }
    /// The time from each change to its arrival at a watcher, in milliseconds.
    const std::vector<double>& lags() const { return lags_; }

  private:
    struct Watcher {
        int socket = -1;
        std::string rest{};  ///< of an incomplete line
    };

    static void begin(int socket, const std::string& lastId);
    std::string lastIdOfList(std::uint16_t port) const;
    void read(Watcher& watcher);

    std::vector<Watcher> watchers_;
    std::vector<double> lags_;
};

}  // namespace orvx::benchmarks
