#pragma once

#include <serviceregistryclient/OrvServiceRegistryContext.h>

#include <orvx/communication/ClientStatistics.h>
#include <orvx/communication/HttpCredentials.h>

#include <cstddef>
#include <map>
#include <memory>
#include <string>

#include "Announcement.h"
#include "Children.h"
#include "EventLoop.h"
#include "HealthCheck.h"
#include "Options.h"

namespace orvx::announce {

/// Announces any number of services at one registry, with one library context with resilience.
/// A service is withdrawn while its health checks fail.
/// Thread-safety: none. Destroy it before the loop, and not while the loop runs.
class Announcer {
  public:
    /// `options` must outlive it. No thread is started before announce().
    Announcer(EventLoop& loop, Children& children, const Options& options,
              std::shared_ptr<communication::HttpCredentials> credentials,
              Announcement::Changed changed);

    /// Announces every healthy service that is not announced. A refused service is tried again.
    void announce();
    /// Replaces the set of services; the next announce() announces the new ones. Returns the uris
    /// of the differences under "added", "changed" and "removed".
    nlohmann::json update(const std::vector<nlohmann::json>& descriptions);
    /// Withdraws all services. None is announced afterwards.
    void withdraw();
    /// Withdraws all services, without the loop. Returns when the registry has answered, or when
    /// the time for it is over.
    void withdrawAndWait();
    /// Stops waiting for withdrawals: a service that is not withdrawn enters Left.
    void giveUp();

    std::size_t size() const { return services_.size(); }
    std::size_t count(Announcement::State state) const;
    /// The number of entries that the registry has confirmed within two check intervals.
    std::size_t countConfirmed();
    /// The status of each service, by ascending uri.
    nlohmann::json status();

  private:
    using Context = serviceregistryclient::OrvServiceRegistryContext;

    struct Service {
        nlohmann::json description;
        std::unique_ptr<Announcement> announcement;
        std::unique_ptr<HealthCheck> health;
        /// The service is erased as soon as it is withdrawn, unless the program ends.
        bool isRemoved = false;
    };
    using Services = std::map<std::string, Service>;

    void openContext();
    void add(const nlohmann::json& description);
    void watchHealth(Service& service);
    void startHealthChecks();
    void change(Service& service, const nlohmann::json& description);
    void remove(Service& service);
    void forEach(void (Announcement::*operation)());
    void handleEvent(const Announcement::Event& event);
    /// Updates all announcements with the library's current status.
    void refresh();
    void announceIfWanted(Service& service);
    Services::iterator eraseIfRemoved(Services::iterator service);

    EventLoop& loop_;
    Children& children_;
    const Options& options_;
    const std::shared_ptr<communication::HttpCredentials> credentials_;
    const std::shared_ptr<communication::ClientStatistics> statistics_;
    const Announcement::Changed changed_;
    const common::ServiceInfo registry_;
    Announcement::StateCounts counts_;
    /// By uri.
    Services services_;
    bool isServing_ = false;
    /// Last, so that its threads, which post to the loop, end first.
    std::unique_ptr<Context> context_;
};

}  // namespace orvx::announce
