#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "TlsFiles.h"

namespace orvx::registry {

/// Where a registry listens and what it allows.
struct RegistryOptions {
    std::string host = "127.0.0.1";  ///< address or name
    bool open = false;          ///< whether anybody may announce from elsewhere than this machine
    std::uint16_t port = 8500;  ///< 0: any free one
    std::uint64_t maxBody = 1'048'576;   ///< largest body of a request, in bytes
    std::size_t maxConnections = 1'000;  ///< a further one ends another
    std::size_t maxEntries = 100'000;    ///< a further one is refused
    std::chrono::milliseconds ttl{0};    ///< of an entry since its renewal; 0: for ever
    std::string store;                   ///< file for the entries; empty: only memory
    std::string log;                     ///< file for requests; `-`: stdout; empty: none
    std::string script;                  ///< file with faults; empty: none
    bool admin = false;                  ///< whether /-/faults is served
    std::vector<std::string> etcd{};     ///< members, which keep the entries; empty: none do
    std::string etcdPrefix = "/orvx-registry/";  ///< of all keys
    TlsFiles etcdTls{};                          ///< for members that speak TLS
    TlsFiles tls{};                              ///< no certificate: no TLS
    std::string tokens;      ///< file with tokens, which every request needs; empty: none
    std::uint32_t rate = 0;  ///< requests a second of one client address; 0: no limit
    std::string audit;       ///< file for changes; `-`: stdout; empty: none
    std::chrono::milliseconds idleTimeout{60'000};     ///< from an answer to the next request
    std::chrono::milliseconds requestTimeout{10'000};  ///< from its first byte to its last
    std::chrono::milliseconds writeTimeout{10'000};    ///< for an answer to be taken
    std::chrono::milliseconds farewellTimeout{2'000};  ///< for the other side to end, after ours
    std::chrono::milliseconds readyTimeout{30'000};    ///< for etcd to answer; see onReady()
};

/// A registry over HTTP. It listens from construction on, and answers while run() runs, all
/// connections on that one thread. Its entries live as long as it does, unless a file or etcd
/// keeps them. When there are too many connections, or too few file descriptors, the connection
/// that had no answer for longest ends.
///
/// Thread-safety: run() by one thread, once; everything else by any thread. Destroy it only when
/// run() has returned or was never called.
class RegistryServer {
  public:
    /// Throws a FileError when a file among the options cannot be used, and a std::runtime_error
    /// that says why when it cannot listen. Elsewhere than at loopback it listens only with tokens,
    /// certificates of the clients, or `open`.
    explicit RegistryServer(const RegistryOptions& options);
    ~RegistryServer();
    RegistryServer(const RegistryServer&) = delete;
    RegistryServer& operator=(const RegistryServer&) = delete;

    /// The port it listens at, also when any free one was asked for.
    std::uint16_t port() const;

    /// Where it listens, as `http://127.0.0.1:8500` or `https://[::1]:8500`.
    std::string url() const;

    /// Before run(): `ready` will be called once, on the thread of run(), unless stop() comes
    /// first. With etcd it is called when /-/ready is answered with 200 for the first time, and
    /// says true; or after `readyTimeout`, and says false. Without etcd it is called at once, and
    /// says true.
    void onReady(std::function<void(bool isCurrent)> ready);

    /// Answers requests until stop(). When it returns, the port and all connections are closed.
    void run();

    /// Makes run() return soon, or at once if it is still to be called. Does not wait for it.
    /// Requests that have arrived in part or whole are answered if that takes no more than
    /// `farewellTimeout`. Stopped is for good. Calling it again does nothing.
    void stop();

    /// Reads the files of TLS and the tokens again, soon, on the thread of run(). All are taken
    /// over, or none when one cannot be used, and a line on stdout or stderr says which. Streams
    /// and idle connections end then, so that nobody goes on with what was withdrawn; the others
    /// end after their answer. `done` is called on that thread after that, whether the files were
    /// taken over or not.
    void reload(std::function<void()> done = {});

  private:
    class Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace orvx::registry
