#pragma once

#include "Announcer.h"
#include "Pace.h"
#include "Stalls.h"
#include "Traffic.h"

#include <deque>
#include <functional>
#include <shared_mutex>
#include <thread>

namespace orvx::stress {

/// The registry of all users, and the objects that observe it.
struct Place {
    Ledger ledger;
    Traffic traffic;
    Stalls stalls;
    std::uint16_t port = 0;
    std::atomic<std::size_t> withdrawals{0};
    std::atomic<std::size_t> stops{0};
    std::atomic<milliseconds::rep> longestStop{0};

    void stop(Announcer& announcer) { noteStop(announcer.stop()); }
    void noteStop(milliseconds duration);
};

/// A service that is registered and withdrawn repeatedly, by one thread at a time. There are never
/// two registrations at once.
class Service {
  public:
    Service(Place& place, std::string name) : place_(place), name_(std::move(name)) {}

    const std::string& name() const { return name_; }
    /// Whether the service is neither registered nor being registered, by the outcomes so far.
    bool isOver() const;
    void announce(Announcer& announcer);
    /// Withdraws the service, once or twice in a row.
    void withdraw(int times);
    void forget();
    /// Records that a withdrawal, perhaps of all services, has begun.
    void noteWithdrawal() { begun_.push_back(Traffic::Clock::now()); }
    /// Whether a check of this entry may have been answered with 404 during a withdrawal, which
    /// ends the check without a log line.
    bool mayHaveLostItsCheck(const std::string& uuid) const;

  private:
    Place& place_;
    const std::string name_;
    std::shared_ptr<Operation> registration_;
    IOrvServiceRegistryClient::UnregisterHandle handle_;
    std::vector<std::shared_ptr<Operation>> withdrawals_;
    std::vector<Traffic::Time> begun_;
};

/// Something on which a user performs an operation from time to time.
class Unit {
  public:
    virtual ~Unit() = default;
    virtual void turn(Random& random) = 0;
    /// Calls an operation and leaves it outstanding.
    virtual void ask() = 0;
};

/// A context with one service. Each registration has a new context, so that its whole log concerns
/// one check.
class Single final : public Unit {
  public:
    static constexpr milliseconds kHeadTimeout{300};

    Single(Place& place, const std::string& name, std::uint16_t maxRetryCount);

    void turn(Random& random) override;
    void ask() override;
    void stop();

    Announcer* announcer() { return announcer_.get(); }
    const Service& service() const { return service_; }

  private:
    void start();

    Place& place_;
    const std::uint16_t maxRetryCount_;
    Service service_;
    std::unique_ptr<Announcer> announcer_;
};

/// Services that share one context, for several threads.
class Crowd {
  public:
    Crowd(Place& place, const std::string& name, int services, milliseconds headTimeout);

    /// One unit for each service.
    std::vector<std::unique_ptr<Unit>> units();
    void stop() { place_.stop(*announcer_); }

    Announcer& announcer() { return *announcer_; }
    std::deque<Service>& services() { return services_; }

  private:
    class Member;

    void withdrawAll();
    /// Stops the client during withdrawals, and replaces it by another one.
    void restart();

    Place& place_;
    const Announcer::Options options_;
    std::unique_ptr<Announcer> announcer_;
    std::deque<Service> services_;
    // Taken exclusively by operations on all services, so that no other thread calls the client
    // then.
    std::shared_mutex calls_;
};

/// Threads that perform operations on units in turn, each on its own share of them, from
/// construction to stop().
class Users {
  public:
    Users(const std::vector<Unit*>& units, std::size_t threads, std::uint64_t seed);
    ~Users() { stop(); }

    /// When it returns, every thread has ended.
    void stop();

  private:
    void use(std::vector<Unit*> units, std::uint64_t seed);

    Pace pace_;
    std::vector<std::thread> threads_;
};

}  // namespace orvx::stress
