#pragma once

#include "Descriptors.h"
#include "Ledger.h"
#include "Pace.h"
#include "ProtocolTest.h"

#include <future>
#include <optional>
#include <thread>
#include <vector>

namespace orvx::stress {

using serviceregistryclient::created;
using serviceregistryclient::eventually;
using serviceregistryclient::obey;
using serviceregistryclient::OrvServiceRegistryClient;
using testing::HostileServer;
using testing::Request;
using testing::response;
using testing::Script;

/// A client, a registry that the test controls, users' threads, and a ledger of operations and
/// outcomes. The registry carries out the requests of the users' services; those of the test have
/// other names. Options are set on `context` and `http` before start().
class Scene {
  public:
    static std::shared_ptr<common::ServiceCreate> service(const std::string& name);

    explicit Scene(std::uint64_t seed);
    ~Scene();
    Scene(const Scene&) = delete;
    Scene& operator=(const Scene&) = delete;

    /// May be called again after stopContext().
    void start();
    /// The client that start() made. May also be used inside callbacks while the context is being
    /// stopped.
    OrvServiceRegistryClient& client() { return *client_; }

    /// A callback that records its outcome in the ledger and then calls `then`.
    IOrvServiceRegistryClient::ResponseCallback record(std::function<void()> then = {});
    IOrvServiceRegistryClient::UnregisterHandle registerService(const std::string& name);
    IOrvServiceRegistryClient::UnregisterHandle registerAt(
        const std::string& host, std::uint16_t port,
        const std::shared_ptr<common::ServiceCreate>& what);
    /// `then` runs inside the callback.
    void registerAndThen(const std::string& name, std::function<void()> then);
    /// Registers and waits for the outcome, which must be a success.
    IOrvServiceRegistryClient::UnregisterHandle registered(const std::string& name);

    /// Starts the users, who work until endUsers().
    void startUsers();
    void endUsers();
    /// Waits for a random time of up to three milliseconds. For the test's thread.
    void passAMoment();

    /// Stops the client within the time limit. No callback runs afterwards.
    void stopClient();
    void stopContext();
    void endContext();
    /// Allows callbacks again.
    void startAgain() { *mark = false; }

    HostileServer server;
    std::optional<testing::DeadResolver> resolver;
    communication::HttpConfig http;
    Ledger ledger;
    const StopMark mark = std::make_shared<std::atomic<bool>>(false);
    std::unique_ptr<serviceregistryclient::OrvServiceRegistryContext> context =
        std::make_unique<serviceregistryclient::OrvServiceRegistryContext>();

  private:
    void use(std::uint64_t seed);
    void expectQuick(const std::function<void()>& stop);

    OrvServiceRegistryClient* client_ = nullptr;
    Random random_;
    Pace pace_;
    std::vector<std::thread> users_;
    std::atomic<int> services_{0};
};

}  // namespace orvx::stress
