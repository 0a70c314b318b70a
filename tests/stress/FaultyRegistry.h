#pragma once

#include "FaultProxy.h"
#include "Pace.h"
#include "RunningRegistry.h"

#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <set>
#include <string>

namespace orvx::stress {

/// A registry after a network with faults, and all faults of both. Used by one thread.
class FaultyRegistry {
  public:
    FaultyRegistry(std::uint64_t seed, FaultProxy::TapMaker tapMaker);

    /// The port at which clients reach the registry.
    std::uint16_t port() const { return proxy_.port(); }
    FaultProxy& proxy() { return proxy_; }
    std::size_t restarts() const { return restarts_; }
    std::size_t lost() const { return lost_; }
    std::size_t pauses() const { return pauses_; }

    /// Changes the faults of the network, loses entries, refuses connections for a moment, or
    /// restarts the registry without its entries.
    void disturb();
    /// For some seconds either no request is answered within its time-out, although each one is
    /// processed, or all are refused.
    void pause();
    /// Restarts the registry without its entries.
    void restart();
    /// Ends all faults.
    void cease();

    /// The registry's own list.
    nlohmann::json list() const;
    /// The uuids of the entries.
    std::set<std::string> entries() const;

  private:
    void loseEntries();
    void refuse();
    void setFaults(const std::string& faults);

    Random random_;
    Pace pace_;
    std::unique_ptr<registry::RunningRegistry> registry_;
    FaultProxy proxy_;
    std::size_t restarts_ = 0;
    std::size_t lost_ = 0;
    std::size_t pauses_ = 0;
};

}  // namespace orvx::stress
