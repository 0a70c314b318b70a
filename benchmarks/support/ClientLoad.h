#pragma once

#include "Requests.h"

#include <serviceregistryclient/IOrvServiceRegistryClient.h>

#include <cstddef>
#include <cstdint>
#include <vector>

namespace orvx::benchmarks {

/// Registers many services at once through the whole library, withdraws them, and waits for the
/// callbacks.
class ClientLoad {
  public:
    using Client = serviceregistryclient::IOrvServiceRegistryClient;

    ClientLoad(Client& client, std::uint16_t port) : client_(client), port_(port) {}

    /// These throw unless every operation succeeds.
    void registerAll(const std::vector<std::shared_ptr<common::ServiceCreate>>& services);
    void withdrawAll();
    /// The heap in use, in bytes, of the objects that registrations returned.
    std::size_t heapOfHandles() const;

  private:
    Client& client_;
    const std::uint16_t port_;
    std::vector<Client::UnregisterHandle> handles_;
};

}  // namespace orvx::benchmarks
