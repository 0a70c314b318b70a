#pragma once

#include "Users.h"

#include <mutex>
#include <string>
#include <vector>

namespace orvx::stress {

/// One path at the registry, and registrations of it with different descriptions. Used by one
/// thread at a time.
class KeptService {
  public:
    KeptService(Place& place, std::string name) : place_(place), path_('/' + std::move(name)) {}

    const std::string& path() const { return path_; }

    void announce(Announcer& announcer);
    /// Withdraws a random registration that is not withdrawn, once or twice in a row.
    void withdraw(Random& random);
    /// Withdraws again the registrations whose withdrawal was answered by a stop: it is unknown
    /// whether the withdrawal came first.
    void withdrawDoubtful();
    /// Called when all registrations were withdrawn.
    void noteWithdrawal();
    /// Removes registrations that have ended.
    void tidy();

    /// The number of registrations that are not withdrawn.
    std::size_t live() const;
    /// Whether every withdrawal was answered, and none by a stop.
    bool isCertain() const;
    /// Whether every registration was answered.
    bool isAnswered() const;
    /// The description that the registry must hold; empty if there must be none.
    std::string latest() const;

  private:
    struct Registration {
        bool isOver() const;
        bool isWithdrawing() const { return isWithdrawn || !withdrawals.empty(); }
        bool isDoubtful() const;

        std::string description;
        std::shared_ptr<Operation> operation;
        IOrvServiceRegistryClient::UnregisterHandle handle;
        std::vector<std::shared_ptr<Operation>> withdrawals;
        bool isWithdrawn = false;  ///< Together with all others.
    };

    void withdraw(Registration& registration);

    Place& place_;
    const std::string path_;
    std::deque<Registration> registrations_;
    std::size_t descriptions_ = 0;
};

/// A client with resilience and its services, for several threads.
class KeptServices {
  public:
    KeptServices(Place& place, const std::string& name, int services,
                 const Announcer::Options& options);

    /// One unit for each service.
    std::vector<std::unique_ptr<Unit>> units();
    /// Stops the client in any state, and starts it again after the pause.
    void restart(milliseconds pause);
    void stop() { place_.stop(announcer_); }

    Announcer& announcer() { return announcer_; }
    std::deque<KeptService>& services() { return services_; }

  private:
    class Member;

    void withdrawAll();

    Place& place_;
    const std::string owner_;  // the paths of the services without their numbers
    Announcer announcer_;
    std::deque<KeptService> services_;
    // Taken exclusively by operations on all services, so that no other thread calls the client
    // then.
    std::shared_mutex calls_;
    // Held while the client is stopped.
    std::mutex running_;
};

}  // namespace orvx::stress
