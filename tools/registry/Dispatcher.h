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
    std::optional<Response> response;  ///< empty: the connection is reset
    std::chrono::milliseconds delay{0};
    std::string remark{};  ///< an additional field of the log line; may be empty
    /// The events that follow the header of the response, without end.
    std::optional<Watch> watch{};
    /// Writes the remainder of the response's body, whose length is unknown.
    std::optional<EntryWriter> rest{};
};

/// Options of a dispatcher.
struct DispatcherOptions {
    bool admin = false;                   ///< whether /-/faults is there
    std::uint32_t requestsPerSecond = 0;  ///< of one client address; 0: no limit
    std::string audit{};                  ///< file for changes; `-`: stdout; empty: none
};

/// Gives each request to what answers it: the entries, the page, the stream of changes, the
/// metrics, the faults and their control.
///
/// Thread-safety: none; one thread at a time.
class Dispatcher {
  public:
    /// Throws a FileError.
    Dispatcher(StoreOptions store, const DispatcherOptions& options);

    /// In place of all others; counted from now. Throws as parseFaults().
    void setFaults(std::string_view text) { faults_.set(parseFaults(text, store_.now())); }

    /// In place of those before; null: no token is needed.
    void setTokens(std::shared_ptr<const Tokens> tokens) { guard_.setTokens(std::move(tokens)); }

    /// The refusal of a request of which only the header is known, or nothing: then react() is to
    /// be called with `caller`, which is set here.
    std::optional<Response> refuse(const Request& header, const Peer& peer, Caller& caller);

    /// Whether that address may make one more connection, if that costs as much as a request.
    bool admitsConnection(const boost::asio::ip::address& address) {
        return guard_.admitsConnection(address, store_.now());
    }

    /// `done`: called once, from inside the call or later, as the backend does. The dispatcher has
    /// to exist until then, the arguments need not.
    void react(const Request& request, const Caller& caller, std::function<void(Reaction)> done);

    /// Changes and finds the entries from now on, in place of the store itself. It fills the
    /// store, and outlives the requests to the dispatcher.
    void setBackend(EntryBackend& backend) { backend_ = &backend; }

    /// A line in the audit log about what is no change of an entry.
    void audit(std::string_view what, const Caller* caller);

    Metrics& counts() { return metrics_; }

    /// What a watch has to tell, after what is due has happened to the entries. Says on stderr when
    /// the store's file fails.
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

    std::optional<AuditLog> audit_;
    EntryStore store_;
    Faults faults_;
    Metrics metrics_;
    RecentPieces pieces_{};
    Guard guard_;
    const bool admin_;
    LocalBackend local_{store_};
    EntryBackend* backend_ = &local_;
};

}  // namespace orvx::registry
