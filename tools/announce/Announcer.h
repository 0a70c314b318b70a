#pragma once

#include <serviceregistryclient/OrvServiceRegistryContext.h>

#include <orvx/communication/ClientStatistics.h>
#include <orvx/communication/HttpCredentials.h>

#include <cstddef>
#include <map>
#include <memory>
#include <string>

#include "Announcement.h"
#include "EventLoop.h"
#include "Options.h"

namespace orvx::announce {

/// Announces services at one registry: any number of them with one library context, whose
/// resilience keeps entries and withdrawals.
/// Thread-safety: none. It must end before the loop does, and not while the loop runs.
class Announcer {
  public:
    /// `options` must outlive it. It starts no thread before announce().
    Announcer(EventLoop& loop, const Options& options,
              std::shared_ptr<communication::HttpCredentials> credentials,
              Announcement::Changed changed);

    /// Announces what is not announced: all services, or later what was refused.
    void announce();
    void withdraw();
    /// What is not withdrawn is not waited for any more.
    void giveUp();

    std::size_t size() const { return announcements_.size(); }
    std::size_t count(Announcement::State state) const;
    /// Of each service, by ascending uri.
    nlohmann::json status();

  private:
    using Context = serviceregistryclient::OrvServiceRegistryContext;

    void open();
    void each(void (Announcement::*operation)());

    EventLoop& loop_;
    const Options& options_;
    const std::shared_ptr<communication::HttpCredentials> credentials_;
    const std::shared_ptr<communication::ClientStatistics> statistics_;
    const Announcement::Changed changed_;
    Announcement::StateCounts counts_;
    /// By uri.
    std::map<std::string, Announcement> announcements_;
    /// Last: its threads post to the loop.
    std::unique_ptr<Context> context_;
};

}  // namespace orvx::announce
