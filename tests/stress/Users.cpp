// Random operations of users: register, withdraw, withdraw all, replace the listener, stop.
//
// Threads: each unit belongs to one user's thread. All users share the crowd's client, under a
// shared lock that only a withdrawal of all takes exclusively. No callback takes any of the locks.

#include "Users.h"

#include "IntegrationSupport.h"

#include <algorithm>
#include <utility>

namespace orvx::stress {

namespace {

int percent(Random& random) {
    return std::uniform_int_distribution<int>(0, 99)(random);
}

}  // namespace

void Place::noteStop(milliseconds duration) {
    const auto count = duration.count();
    auto longest = longestStop.load();
    while (longest < count && !longestStop.compare_exchange_weak(longest, count)) {
    }
    ++stops;
}

bool Service::isOver() const {
    return !registration_ || registration_->isRefused() ||
           std::any_of(withdrawals_.begin(), withdrawals_.end(),
                       [](const auto& withdrawal) { return withdrawal->isOk(); });
}

void Service::announce(Announcer& announcer) {
    forget();
    place_.traffic.expectPuts('/' + name_);
    registration_ = place_.ledger.begin(announcer.mark());
    handle_ = announcer.client().registerServiceAtRegistry({"registry", "127.0.0.1", place_.port},
                                                           serviceregistryclient::service(name_),
                                                           place_.ledger.answer(registration_));
}

void Service::withdraw(int times) {
    for (int i = 0; i < times; ++i) {
        noteWithdrawal();
        ++place_.withdrawals;
        withdrawals_.push_back(place_.ledger.begin(registration_->client));
        handle_(place_.ledger.answer(withdrawals_.back()));
    }
}

void Service::forget() {
    registration_.reset();
    handle_ = {};
    withdrawals_.clear();
    begun_.clear();
}

// The answer to a check takes at most the request time-out, and so does the withdrawal.
bool Service::mayHaveLostItsCheck(const std::string& uuid) const {
    const auto margin = Announcer::kRequestTimeout + std::chrono::seconds(1);
    return std::any_of(begun_.begin(), begun_.end(), [&](Traffic::Time begin) {
        return place_.traffic.wasMissing(uuid, begin - margin, begin + margin);
    });
}

Single::Single(Place& place, const std::string& name, std::uint16_t maxRetryCount)
    : place_(place), maxRetryCount_(maxRetryCount), service_(place, name) {
    start();
}

void Single::start() {
    announcer_ = std::make_unique<Announcer>(place_.ledger,
                                             Announcer::Options{kHeadTimeout, maxRetryCount_, 2});
    service_.announce(*announcer_);
}

void Single::stop() {
    if (announcer_) {
        place_.stop(*announcer_);
        announcer_.reset();
        service_.forget();
    }
}

void Single::turn(Random& random) {
    const int choice = percent(random);
    if (service_.isOver()) {
        stop();
        start();
    } else if (choice < 2) {
        service_.withdraw(1);
        stop();
        start();
    } else if (choice < 10) {
        service_.withdraw(1 + choice % 2);
    } else if (choice < 15) {
        announcer_->replaceListener();
    }
}

void Single::ask() {
    if (service_.isOver()) {
        stop();
        start();
    } else {
        service_.withdraw(1);
    }
}

class Crowd::Member final : public Unit {
  public:
    Member(Crowd& crowd, Service& service) : crowd_(crowd), service_(service) {}

    void turn(Random& random) override {
        const int choice = percent(random);
        if (choice == 99 && percent(random) < 5) {
            percent(random) < 50 ? crowd_.withdrawAll() : crowd_.restart();
            return;
        }
        const std::shared_lock<std::shared_mutex> lock(crowd_.calls_);
        if (service_.isOver()) {
            service_.announce(crowd_.announcer());
        } else if (choice < 10) {
            service_.withdraw(1 + choice % 2);
        } else if (choice < 15) {
            crowd_.announcer().replaceListener();
        }
    }

    void ask() override {
        service_.isOver() ? service_.announce(crowd_.announcer()) : service_.withdraw(1);
    }

  private:
    Crowd& crowd_;
    Service& service_;
};

Crowd::Crowd(Place& place, const std::string& name, int services, milliseconds headTimeout)
    : place_(place),
      options_{headTimeout},
      announcer_(std::make_unique<Announcer>(place.ledger, options_)) {
    for (int i = 0; i < services; ++i) {
        services_.emplace_back(place, name + std::to_string(i));
    }
}

std::vector<std::unique_ptr<Unit>> Crowd::units() {
    std::vector<std::unique_ptr<Unit>> units;
    for (Service& service : services_) {
        units.push_back(std::make_unique<Member>(*this, service));
    }
    return units;
}

void Crowd::withdrawAll() {
    const std::unique_lock<std::shared_mutex> lock(calls_);
    for (Service& service : services_) {
        service.noteWithdrawal();
    }
    const auto all = place_.ledger.beginWithdrawalOfAll(announcer_->mark());
    all->before = announcer_->heldCount();
    place_.withdrawals += all->before;
    announcer_->client().unregisterAllServicesFromRegistry(place_.ledger.answer(all));
    all->after = announcer_->heldCount();
}

void Crowd::restart() {
    const std::unique_lock<std::shared_mutex> lock(calls_);
    for (Service& service : services_) {
        if (!service.isOver()) {
            service.withdraw(1);
        }
    }
    stop();
    for (Service& service : services_) {
        service.forget();
    }
    announcer_ = std::make_unique<Announcer>(place_.ledger, options_);
}

Users::Users(const std::vector<Unit*>& units, std::size_t threads, std::uint64_t seed) {
    std::vector<std::vector<Unit*>> shares(threads);
    for (std::size_t i = 0; i < units.size(); ++i) {
        shares[i % threads].push_back(units[i]);
    }
    for (std::size_t i = 0; i < threads; ++i) {
        threads_.emplace_back(
            [this, share = std::move(shares[i]), own = seed + i] { use(share, own); });
    }
}

void Users::use(std::vector<Unit*> units, std::uint64_t seed) {
    Random random(seed);
    do {
        const auto index = std::uniform_int_distribution<std::size_t>(0, units.size() - 1)(random);
        units[index]->turn(random);
    } while (pace_.wait(milliseconds(std::uniform_int_distribution<int>(1, 20)(random))));
}

void Users::stop() {
    pace_.end();
    for (std::thread& thread : threads_) {
        thread.join();
    }
    threads_.clear();
}

}  // namespace orvx::stress
