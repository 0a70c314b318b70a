#pragma once

#include "Users.h"

#include <mutex>
#include <string>
#include <vector>

namespace orvx::stress {

/// One path at the registry, and registrations of it, each with a description of its own. By one
/// thread at a time.
class KeptService {
  public:
    KeptService(Place& place, std::string name) : place_(place), path_('/' + std::move(name)) {}

    const std::string& path() const { return path_; }

    void announce(Announcer& announcer);
    /// Any registration that nobody withdraws yet; once, or twice in a row.
    void withdraw(Random& random);
    /// Again those whose withdrawal was answered by a stop, which may or may not have come first.
    void withdrawDoubtful();
    /// All were withdrawn.
    void noteWithdrawal();
    /// Forgets registrations that are over.
    void tidy();

    /// Registrations that nobody withdraws.
    std::size_t live() const;
    /// Every withdrawal was answered, and not by a stop.
    bool isCertain() const;
    /// Every registration was answered.
    bool isAnswered() const;
    /// What the registry must hold; empty: nothing.
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
        bool isWithdrawn = false;  ///< With all others.
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

    /// One for each service.
    std::vector<std::unique_ptr<Unit>> units();
    /// Stops the client whatever is under way, and starts it again after that time.
    void restart(milliseconds pause);
    void stop() { place_.stop(announcer_); }

    Announcer& announcer() { return announcer_; }
    std::deque<KeptService>& services() { return services_; }

  private:
    class Member;

    void withdrawAll();

    Place& place_;
    Announcer announcer_;
    std::deque<KeptService> services_;
    // Exclusive for what concerns all services, so that nobody calls the client meanwhile.
    std::shared_mutex calls_;
    // Held while the client is stopped.
    std::mutex running_;
};

}  // namespace orvx::stress
