#pragma once

#include "Connection.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>

namespace orvx::benchmarks {

/// A registry, with and without TLS, that costs almost nothing and stores nothing: PUT is answered
/// with 201 and a location made of the last segment of its path, DELETE with 200, and HEAD with
/// 200, or with 404 while the server acts as if it had lost everything.
///
/// Its orders: GET /lose and GET /found; GET /heads/N, which is answered when N HEADs have come;
/// GET /counts, which is answered with the numbers of PUTs, HEADs and DELETEs.
class Server {
  public:
    /// Listens at two free ports of 127.0.0.1. The files are in PEM.
    Server(const char* certificateFile, const char* keyFile);
    ~Server();
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    std::uint16_t port() const { return plain_.port; }
    std::uint16_t tlsPort() const { return secure_.port; }
    /// Serves until the end of standard input.
    void run();

  private:
    struct Listener {
        Listener();
        ~Listener();
        Listener(const Listener&) = delete;
        Listener& operator=(const Listener&) = delete;

        const int socket;
        std::uint16_t port = 0;
    };
    struct TlsDeleter {
        void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
    };

    void watch(int descriptor) const;
    void accept(int listener);
    void serve(int socket);
    void answer(const Connection& connection, std::string_view request);
    void answerPut(const Connection& connection, std::string_view path);
    void answerHead(const Connection& connection);
    void answerOrder(const Connection& connection, std::string_view path);
    void answerText(const Connection& connection, const std::string& text) const;

    const std::unique_ptr<SSL_CTX, TlsDeleter> tls_;
    Listener plain_;
    Listener secure_;
    const int epoll_;
    std::unordered_map<int, Connection> connections_;
    std::string answer_;
    bool hasLost_ = false;
    std::uint64_t puts_ = 0;
    std::uint64_t heads_ = 0;
    std::uint64_t deletes_ = 0;
    const Connection* waiting_ = nullptr;
    std::uint64_t awaitedHeads_ = 0;
};

}  // namespace orvx::benchmarks
