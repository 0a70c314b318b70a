#pragma once

#include <array>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <random>
#include <string_view>
#include <thread>
#include <unordered_set>

#include "Loopback.h"

namespace orvx::stress {

/// The faults of one direction of one connection, which may be combined. A plain value.
struct Faults {
    static constexpr std::size_t kNever = std::numeric_limits<std::size_t>::max();

    /// The maximum of the random delay of each piece.
    std::chrono::milliseconds longestDelay{0};
    std::size_t bytesPerSecond = kNever;
    std::size_t pieceBytes = kNever;
    /// Reads and forwards no bytes.
    bool blackHole = false;
    /// After this many bytes in this direction both sides get a RST, or a FIN.
    std::size_t resetAfter = kNever;
    std::size_t closeAfter = kNever;
};

/// Observes the bytes of one connection as its two ends sent them, and ends with the connection.
/// Called on the proxy's thread.
class ITap {
  public:
    virtual ~ITap() = default;
    virtual void sentByClient(std::string_view bytes) = 0;
    virtual void sentByServer(std::string_view bytes) = 0;
    /// This many more of the client's bytes have reached the server, in order. `isLate`: the client
    /// had ended the connection before.
    virtual void reachedServer(std::size_t /*bytes*/, bool /*isLate*/) {}
};

/// Stands between clients and a server on the loopback, and adds faults to the connections.
///
/// Thread-safe, except its destructor. Everything happens on its own thread. An order has taken
/// effect when its call returns.
class FaultProxy {
  public:
    struct Plan {
        Faults toServer;
        Faults toClient;
    };
    /// Called for each connection, on the proxy's thread, always with the same generator.
    using Planner = std::function<Plan(std::mt19937_64&)>;
    using TapMaker = std::function<std::unique_ptr<ITap>()>;

    /// The number of events so far.
    struct Counters {
        std::size_t connections = 0;
        std::size_t open = 0;
        std::size_t refusals = 0;   ///< The number of times that it stopped listening.
        std::size_t delayed = 0;    ///< The number of delayed pieces.
        std::size_t sliced = 0;     ///< Pieces that were not the last of what was read.
        std::size_t swallowed = 0;  ///< Reads of a black hole.
        std::size_t resets = 0;
        std::size_t closes = 0;
    };

    /// When it returns, the proxy listens. Throws std::system_error.
    FaultProxy(std::uint16_t serverPort, std::uint64_t seed, TapMaker tapMaker = {});
    ~FaultProxy();
    FaultProxy(const FaultProxy&) = delete;
    FaultProxy& operator=(const FaultProxy&) = delete;

    std::uint16_t port() const { return port_; }

    /// The port for connections that are made later.
    void setServerPort(std::uint16_t port);
    void setPlanner(Planner planner);
    /// Ends all faults: open connections continue without faults, or are reset if bytes were lost
    /// already.
    void cease();
    /// Refuses connects; open connections continue.
    void stopListening();
    /// Listens at the same port again.
    void listenAgain();
    Counters counters();

  private:
    class Link;

    void order(const std::function<void()>& what);
    void listen();
    void accept();
    void link(boost::asio::ip::tcp::socket client);

    const testing::Socket reservation_;
    const std::uint16_t port_;
    const TapMaker tapMaker_;

    // Used by the proxy's thread only.
    std::mt19937_64 random_;
    std::uint16_t serverPort_;
    Planner planner_;
    Counters counters_;
    std::unordered_set<Link*> links_;  // the existing links
    boost::asio::io_context io_;
    /// The io_context also runs while the proxy neither listens nor has a connection.
    const boost::asio::executor_work_guard<boost::asio::io_context::executor_type> work_ =
        boost::asio::make_work_guard(io_);
    boost::asio::ip::tcp::acceptor acceptor_{io_};

    std::thread thread_;
};

}  // namespace orvx::stress
