#pragma once

#include "CurlRequest.h"

#include <cstddef>
#include <memory>
#include <vector>

namespace httplib {
class Client;
}

namespace orvx::benchmarks {

/// cpp-httplib in its usual form: one client, one connection, blocking. Without TLS.
class HttplibPeer {
  public:
    explicit HttplibPeer(const Address& server);
    ~HttplibPeer();

    /// Sends the requests one after another. Throws unless each answer is as expected.
    void run(Method method, const Requests& requests);

  private:
    const std::unique_ptr<httplib::Client> client_;
};

/// libcurl's easy interface in its usual form: one handle, one connection, blocking.
class EasyPeer {
  public:
    explicit EasyPeer(const Address& server) : request_(server) {}

    /// Sends every `step`-th request, beginning with `first`, one after another. Throws unless each
    /// answer is as expected.
    void run(Method method, const Requests& requests, std::size_t first = 0, std::size_t step = 1);

  private:
    CurlRequest request_;
};

/// A thread for each connection, with a blocking handle of libcurl each.
class ThreadsPeer {
  public:
    ThreadsPeer(const Address& server, std::size_t connections);

    /// Distributes the requests among the threads. Throws unless each answer is as expected.
    void run(Method method, const Requests& requests);

  private:
    std::vector<std::unique_ptr<EasyPeer>> peers_;
};

}  // namespace orvx::benchmarks
