#pragma once

#include "Announcer.h"
#include "Pace.h"
#include "Traffic.h"

#include <deque>
#include <functional>
#include <shared_mutex>
#include <thread>

namespace orvx::stress {

/// Where all users announce, and what watches them.
struct Place {
    Ledger ledger;
    Traffic traffic;
    std::uint16_t port = 0;
    std::atomic<std::size_t> withdrawals{0};
    std::atomic<std::size_t> stops{0};
    std::atomic<milliseconds::rep> longestStop{0};

    void stop(Announcer& announcer) { noteStop(announcer.stop()); }
    void noteStop(milliseconds duration);
};

/// A service that is registered and withdrawn again and again, by one thread at a time. Never two
/// registrations at once.
class Service {
  public:
    Service(Place& place, std::string name) : place_(place), name_(std::move(name)) {}

    const std::string& name() const { return name_; }
    /// Neither registered nor about to be, as far as was told.
    bool isOver() const;
    void announce(Announcer& announcer);
    /// Once, or twice in a row.
    void withdraw(int times);
    void forget();
    /// That a withdrawal, perhaps of all, has begun.
    void noteWithdrawal() { begun_.push_back(Traffic::Clock::now()); }
    /// Whether a check of this entry may have been answered with 404 during a withdrawal, which
    /// ends it without a word.
    bool mayHaveLostItsCheck(const std::string& uuid) const;

  private:
    Place& place_;
    const std::string name_;
    std::shared_ptr<Operation> registration_;
    IOrvServiceRegistryClient::UnregisterHandle handle_;
    std::vector<std::shared_ptr<Operation>> withdrawals_;
    std::vector<Traffic::Time> begun_;
};

/// Something that a user has a turn at now and then.
class Unit {
  public:
    virtual ~Unit() = default;
    virtual void turn(Random& random) = 0;
    /// Leaves an operation outstanding.
    virtual void ask() = 0;
};

/// A context with one service: a new context for each registration, so that all its log is that of
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

    /// One for each service.
    std::vector<std::unique_ptr<Unit>> units();
    void stop() { place_.stop(*announcer_); }

    Announcer& announcer() { return *announcer_; }
    std::deque<Service>& services() { return services_; }

  private:
    class Member;

    void withdrawAll();
    /// Stops the client amid withdrawals, and begins anew with another one.
    void restart();

    Place& place_;
    const Announcer::Options options_;
    std::unique_ptr<Announcer> announcer_;
    std::deque<Service> services_;
    // Exclusive for what concerns all services, so that nobody calls the client meanwhile.
    std::shared_mutex calls_;
};

/// Threads that take turns at units, each at its own share of them, from construction to stop().
class Users {
  public:
    Users(const std::vector<Unit*>& units, std::size_t threads, std::uint64_t seed);
    ~Users() { stop(); }

    /// Every thread has ended when it returns.
    void stop();

  private:
    void use(std::vector<Unit*> units, std::uint64_t seed);

    Pace pace_;
    std::vector<std::thread> threads_;
};

}  // namespace orvx::stress
