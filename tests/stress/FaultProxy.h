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

/// What one direction of one connection suffers. All of it may be combined; a plain value.
struct Faults {
    static constexpr std::size_t kNever = std::numeric_limits<std::size_t>::max();

    /// Each piece waits a random time up to this.
    std::chrono::milliseconds longestDelay{0};
    std::size_t bytesPerSecond = kNever;
    std::size_t pieceBytes = kNever;
    /// Reads and forwards nothing.
    bool blackHole = false;
    /// After so many bytes in this direction both sides get a RST, or a FIN.
    std::size_t resetAfter = kNever;
    std::size_t closeAfter = kNever;
};

/// Sees the bytes of one connection as its two ends sent them, and ends with it. On the proxy's
/// thread.
class ITap {
  public:
    virtual ~ITap() = default;
    virtual void sentByClient(std::string_view bytes) = 0;
    virtual void sentByServer(std::string_view bytes) = 0;
    /// So many more of the client's bytes have reached the server, all of them in their order.
    /// `isLate`: the client had ended the connection before.
    virtual void reachedServer(std::size_t /*bytes*/, bool /*isLate*/) {}
};

/// Stands between clients and a server on the loopback and harms what passes.
///
/// Thread-safe, but for its destructor. Everything happens on one thread of its own. Orders are in
/// force when they return.
class FaultProxy {
  public:
    struct Plan {
        Faults toServer;
        Faults toClient;
    };
    /// Called for each connection, on the proxy's thread, always with the same generator.
    using Planner = std::function<Plan(std::mt19937_64&)>;
    using TapMaker = std::function<std::unique_ptr<ITap>()>;

    /// What has happened so far.
    struct Counters {
        std::size_t connections = 0;
        std::size_t open = 0;
        std::size_t refusals = 0;   ///< How often it stopped listening.
        std::size_t delayed = 0;    ///< Pieces.
        std::size_t sliced = 0;     ///< Pieces that were not the last of what was read.
        std::size_t swallowed = 0;  ///< Reads of a black hole.
        std::size_t resets = 0;
        std::size_t closes = 0;
    };

    /// Listens when it returns. Throws std::system_error.
    FaultProxy(std::uint16_t serverPort, std::uint64_t seed, TapMaker tapMaker = {});
    ~FaultProxy();
    FaultProxy(const FaultProxy&) = delete;
    FaultProxy& operator=(const FaultProxy&) = delete;

    std::uint16_t port() const { return port_; }

    /// Of connections that are made from now on.
    void setServerPort(std::uint16_t port);
    void setPlanner(Planner planner);
    /// No faults from now on: open connections go on without, or, where bytes are lost already, are
    /// reset.
    void cease();
    /// Connects are refused; open connections go on.
    void stopListening();
    /// At the same port.
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

    // Of the proxy's thread.
    std::mt19937_64 random_;
    std::uint16_t serverPort_;
    Planner planner_;
    Counters counters_;
    std::unordered_set<Link*> links_;  // those that live
    boost::asio::io_context io_;
    /// It also runs while it neither listens nor has a connection.
    const boost::asio::executor_work_guard<boost::asio::io_context::executor_type> work_ =
        boost::asio::make_work_guard(io_);
    boost::asio::ip::tcp::acceptor acceptor_{io_};

    std::thread thread_;
};

}  // namespace orvx::stress
