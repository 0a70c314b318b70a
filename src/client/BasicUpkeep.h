#pragma once

#include "Upkeep.h"

namespace orvx::serviceregistryclient {

/// Keeps registrations when resilience is off, by the members of the client.
/// OrvServiceRegistryClient.h lists their files, from Registration.cpp on.
class OrvServiceRegistryClient::BasicUpkeep final : public Upkeep {
  public:
    explicit BasicUpkeep(OrvServiceRegistryClient& client) : Upkeep(client) {}

    UnregisterHandle announce(const common::ServiceInfo& registry,
                              const std::shared_ptr<RequestContainer>& request,
                              ResponseCallback callback) override;
    void withdraw(std::uint64_t id, const ResponseCallback& callback) override;
    void start() override {}
    void stop() override {}
    void queueTask(std::function<void()> task) override;
    void queueTasksLocked(Tasks tasks) ORVX_REQUIRES(ORVX_CLIENT_LOCK) override;
    std::map<std::uint64_t, std::shared_ptr<common::ServiceCreate>> descriptions() override;
    std::vector<RegistrationStatus> statuses() override;
    std::vector<std::string> withdrawWithin(std::chrono::milliseconds bound) override;
    SyncOrvRegistrationResponse registerAndWait(
        const common::ServiceInfo& registry,
        const std::shared_ptr<common::ServiceCreate>& service) override;
    std::pair<bool, SyncServiceResponses> registerAllAndWait(const common::ServiceInfo& registry,
                                                             const ServiceSet& services) override;
    std::pair<bool, ServiceResponses> withdrawAllAndWait() override;

  private:
    void refuseLater(ResponseCallback callback) ORVX_EXCLUDES(client_.mutex);
    void withdrawEntries() ORVX_EXCLUDES(client_.mutex);
};

}  // namespace orvx::serviceregistryclient
