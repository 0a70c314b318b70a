#pragma once

#include "Requests.h"

#include <serviceregistryclient/IOrvServiceRegistryClient.h>

#include <cstddef>
#include <cstdint>
#include <vector>

namespace orvx::benchmarks {

/// Registers services through the whole library and withdraws them, many at once, and waits for the
/// callbacks.
class ClientLoad {
  public:
    using Client = serviceregistryclient::IOrvServiceRegistryClient;

    ClientLoad(Client& client, std::uint16_t port) : client_(client), port_(port) {}

    /// Throw unless each one succeeds.
    void registerAll(const std::vector<std::shared_ptr<common::ServiceCreate>>& services);
    void withdrawAll();
    /// Bytes of heap in use for what registrations gave back.
    std::size_t heapOfHandles() const;

  private:
    Client& client_;
    const std::uint16_t port_;
    std::vector<Client::UnregisterHandle> handles_;
};

}  // namespace orvx::benchmarks
