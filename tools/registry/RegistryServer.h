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

/// The options of a registry.
struct RegistryOptions {
    std::string host = "127.0.0.1";  ///< address or name
    bool open = false;          ///< allows a host other than loopback without tokens and client CA
    std::uint16_t port = 8500;  ///< 0: any free port
    std::uint64_t maxBody = 1'048'576;   ///< largest body of a request, in bytes
    std::size_t maxConnections = 1'000;  ///< a further connection ends another one
    std::size_t maxEntries = 100'000;    ///< a further entry is refused
    std::chrono::milliseconds ttl{0};    ///< of an entry since its renewal; 0: unlimited
    std::string store;                   ///< file for the entries; empty: only memory
    std::string log;                     ///< file for requests; `-`: stdout; empty: none
    std::string script;                  ///< file with faults; empty: none
    bool admin = false;                  ///< whether /-/faults is served
    std::vector<std::string> etcd{};     ///< members of etcd that keep the entries; empty: no etcd
    std::string etcdPrefix = "/orvx-registry/";  ///< of all keys at etcd
    TlsFiles etcdTls{};                          ///< for https members
    TlsFiles tls{};                              ///< no certificate: no TLS
    std::string tokens;      ///< file with tokens, which every request needs; empty: none
    std::uint32_t rate = 0;  ///< requests per second from one client address; 0: no limit
    std::string audit;       ///< file for changes; `-`: stdout; empty: none
    std::chrono::milliseconds idleTimeout{
        60'000};  ///< until the next request of a connection begins
    std::chrono::milliseconds requestTimeout{
        10'000};  ///< from the first byte of a request to its last
    std::chrono::milliseconds writeTimeout{10'000};  ///< for the client to take an answer
    std::chrono::milliseconds farewellTimeout{
        2'000};  ///< for the client to close, after an answer that ends the connection
    std::chrono::milliseconds readyTimeout{30'000};  ///< for etcd to answer; see onReady()
};

/// A registry over HTTP. It listens from its construction on. While run() runs, it serves all
/// connections on that thread. Its entries end with it, unless a file or etcd keeps them. If there
/// are too many connections, or too few file descriptors, the connection without an answer for the
/// longest time ends.
///
/// Thread-safety: run() by one thread, once; everything else by any thread. It must not be
/// destroyed while run() runs.
class RegistryServer {
  public:
    /// Throws a FileError if a file of the options cannot be used, and a std::runtime_error with
    /// the reason if it cannot listen. An address other than loopback requires tokens, certificates
    /// of the clients, or `open`.
    explicit RegistryServer(const RegistryOptions& options);
    ~RegistryServer();
    RegistryServer(const RegistryServer&) = delete;
    RegistryServer& operator=(const RegistryServer&) = delete;

    /// The actual port, also if `port` was 0.
    std::uint16_t port() const;

    /// The URL of the registry, as `http://127.0.0.1:8500` or `https://[::1]:8500`.
    std::string url() const;

    /// To be called before run(). `ready` is called once, on the thread of run(), unless stop() is
    /// called first. With etcd it is called with true as soon as /-/ready is answered with 200, or
    /// with false after `readyTimeout`. Without etcd it is called with true at once.
    void onReady(std::function<void(bool isCurrent)> ready);

    /// Answers requests until stop(). When it returns, the port and all connections are closed.
    void run();

    /// Makes run() return soon, without waiting for it. A later run() returns at once. Requests
    /// that have arrived in part or as a whole are answered within `farewellTimeout`, or not at
    /// all. A stopped registry cannot be started again. A second call does nothing.
    void stop();

    /// Reads the files of TLS and the tokens again, soon, on the thread of run(). If one of them
    /// cannot be used, nothing changes, and a line on stderr gives the reason. Otherwise a line on
    /// stdout says so, streams and idle connections end, and the other connections end after their
    /// answer, so that none continues with a withdrawn token or certificate. `done` is called on
    /// that thread in both cases.
    void reload(std::function<void()> done = {});

  private:
    class Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace orvx::registry
