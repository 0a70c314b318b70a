#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>

#include "AuditLog.h"
#include "EntryStore.h"
#include "Faults.h"
#include "Guard.h"
#include "Metrics.h"
#include "RequestHandler.h"
#include "Watch.h"

namespace orvx::registry {

/// The result of a request.
struct Reaction {
    std::optional<Response> response;  ///< none: the connection is reset
    std::chrono::milliseconds delay{0};
    std::string remark{};  ///< an additional field of the log line; may be empty
    /// The source of the events that follow the response's header.
    std::optional<Watch> watch{};
    /// Writes the rest of the response's body, whose length is unknown.
    std::optional<EntryWriter> rest{};
};

/// Options of a dispatcher.
struct DispatcherOptions {
    bool admin = false;                   ///< whether /-/faults is served
    std::uint32_t requestsPerSecond = 0;  ///< from one client address; 0: no limit
    std::string audit{};                  ///< file for changes; `-`: stdout; empty: none
};

/// Passes each request to the handler of its target: the entries, the page, the stream of changes,
/// the health and readiness, the metrics, the targets for Prometheus, or the control of the faults.
///
/// Thread-safety: none; one thread at a time.
class Dispatcher {
  public:
    /// Throws a FileError.
    Dispatcher(StoreOptions store, const DispatcherOptions& options);

    /// Replaces all faults. Their times count from now. Throws like parseFaults().
    void setFaults(std::string_view text) { faults_.set(parseFaults(text, store_.now())); }

    /// Replaces the tokens; null: no token is needed.
    void setTokens(std::shared_ptr<const Tokens> tokens) { guard_.setTokens(std::move(tokens)); }

    /// Checks a request of which only the header is known. Returns the refusal; nothing if the
    /// request may be carried out. Sets `caller`, which is then passed to react().
    std::optional<Response> refuse(const Request& header, const Peer& peer, Caller& caller);

    /// Counts a connection as one request of the address. Returns whether it may be made.
    bool admitsConnection(const boost::asio::ip::address& address) {
        return guard_.admitsConnection(address, store_.now());
    }

    /// `done`: called once, from inside the call or later, as the backend does. The dispatcher must
    /// exist until then; the arguments need not.
    void react(const Request& request, const Caller& caller, std::function<void(Reaction)> done);

    /// Uses `backend` from now on to change and find entries, in place of the store itself. The
    /// backend fills the store, and must outlive the requests to the dispatcher.
    void setBackend(EntryBackend& backend) { backend_ = &backend; }

    /// Writes a line to the audit log about an event that changes no entry.
    void audit(std::string_view what, const Caller* caller);

    Metrics& counts() { return metrics_; }

    /// Applies due expiries and faults, and returns the next events of a watch. Reports on stderr
    /// when the store's file fails.
    RecentPieces::Piece news(Watch& watch);

    const EntryStore& store() const { return store_; }
    EntryStore& store() { return store_; }

  private:
    using Handler = std::function<void(Reaction)>;

    void decide(const Request& request, const Caller& caller, const Handler& done);
    void askForEntries(const Request& request, const Caller& caller, Handler done);
    Reaction beginWatch(const Request& request);
    Response metrics();
    Reaction targetGroups(const Request& request);
    Response control(const Request& request, const Caller& caller);
    void forgetWhatIsDue();
    /// A change that took place, in the audit log. `caller`: null for the registry itself.
    void audit(Change change, const Entry& entry, const Caller* caller);

    std::optional<AuditLog> audit_;
    Metrics metrics_;
    EntryStore store_;  // tells the two above of what expires
    Faults faults_;
    RecentPieces pieces_{};
    Guard guard_;
    const bool admin_;
    LocalBackend local_{store_};
    EntryBackend* backend_ = &local_;
};

}  // namespace orvx::registry
