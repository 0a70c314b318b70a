#pragma once

#include "FaultProxy.h"
#include "Pace.h"
#include "RunningRegistry.h"

#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <set>
#include <string>

namespace orvx::stress {

/// A registry behind a network that fails, and everything that can go wrong with both. For one
/// thread.
class FaultyRegistry {
  public:
    FaultyRegistry(std::uint64_t seed, FaultProxy::TapMaker tapMaker);

    /// Where clients reach it.
    std::uint16_t port() const { return proxy_.port(); }
    FaultProxy& proxy() { return proxy_; }
    std::size_t restarts() const { return restarts_; }
    std::size_t lost() const { return lost_; }
    std::size_t pauses() const { return pauses_; }

    /// Changes the faults of the network, loses entries, refuses connections for a moment, or
    /// restarts empty.
    void disturb();
    /// For some seconds no request is answered within its time-out, though each is carried out; or
    /// all are refused.
    void pause();
    /// It comes back empty.
    void restart();
    /// No faults from now on.
    void cease();

    /// As the registry lists them.
    nlohmann::json list() const;
    /// Their uuids.
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
