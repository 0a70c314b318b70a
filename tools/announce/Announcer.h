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

/// Announces services at one registry: any number of them with one library context, whose
/// resilience keeps entries and withdrawals. A service is withdrawn while its health checks fail.
/// Thread-safety: none. It must end before the loop does, and not while the loop runs.
class Announcer {
  public:
    /// `options` must outlive it. It starts no thread before announce().
    Announcer(EventLoop& loop, Children& children, const Options& options,
              std::shared_ptr<communication::HttpCredentials> credentials,
              Announcement::Changed changed);

    /// Announces what is healthy and not announced: all services, or later what was refused.
    void announce();
    /// Makes these the services; announce() announces those that are new. The uris of what has
    /// changed, by event: "added", "changed", "removed".
    nlohmann::json update(const std::vector<nlohmann::json>& descriptions);
    /// Withdraws everything, for good.
    void withdraw();
    /// What is not withdrawn is not waited for any more.
    void giveUp();

    std::size_t size() const { return services_.size(); }
    std::size_t count(Announcement::State state) const;
    /// How many entries the registry has confirmed within two check intervals.
    std::size_t countConfirmed();
    /// Of each service, by ascending uri.
    nlohmann::json status();

  private:
    using Context = serviceregistryclient::OrvServiceRegistryContext;

    struct Service {
        nlohmann::json description;
        std::unique_ptr<Announcement> announcement;
        std::unique_ptr<HealthCheck> health;
        /// It is forgotten as soon as it is withdrawn.
        bool isRemoved = false;
    };
    using Services = std::map<std::string, Service>;

    void open();
    void add(const nlohmann::json& description);
    void watchHealth(Service& service);
    void startHealthChecks();
    void change(Service& service, const nlohmann::json& description);
    void remove(Service& service);
    void each(void (Announcement::*operation)());
    void take(const Announcement::Event& event);
    /// Takes what the library knows now.
    void refresh();
    void settle(Service& service);
    Services::iterator forgetRemoved(Services::iterator service);

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
    /// Last: its threads post to the loop.
    std::unique_ptr<Context> context_;
};

}  // namespace orvx::announce
