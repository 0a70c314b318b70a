#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "EntryStore.h"
#include "Faults.h"
#include "Metrics.h"
#include "RequestHandler.h"
#include "Watch.h"

namespace orvx::registry {

/// What is done about a request.
struct Reaction {
    std::optional<Response> response;  ///< empty: the connection is reset
    std::chrono::milliseconds delay{0};
    std::string remark{};  ///< what the log is to say of the request
    /// Follows the entries: what it has to tell goes behind the response, which has no end.
    std::optional<Watch> watch{};
};

/// Gives each request to what answers it: the entries, the page, the stream of changes, the
/// metrics, the faults and their control.
///
/// Thread-safety: none; one thread at a time.
class Dispatcher {
  public:
    /// `admin`: whether /-/faults is there. Throws a FileError.
    Dispatcher(StoreOptions options, bool admin) : store_(std::move(options)), admin_(admin) {}

    /// In place of all others; counted from now. Throws as parseFaults().
    void setFaults(std::string_view text) { faults_.set(parseFaults(text, store_.now())); }

    Reaction react(const Request& request);

    /// What a watch has to tell, after what is due has happened to the entries. Says on stderr when
    /// the store's file fails.
    std::string news(Watch& watch);

    const EntryStore& store() const { return store_; }

  private:
    Reaction decide(const Request& request);
    Reaction beginWatch(const Request& request);
    Response metrics();
    Response control(const Request& request);
    void forgetWhatIsDue();

    EntryStore store_;
    Faults faults_;
    Metrics metrics_;
    const bool admin_;
};

}  // namespace orvx::registry
