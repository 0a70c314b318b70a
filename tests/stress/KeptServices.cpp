// Random operations of users of a client with resilience: register, register once more, withdraw at
// any time, withdraw all; and the content that the registry must have then.
//
// Threads: each service belongs to one user's thread. All users share the client, under a shared
// lock that only a withdrawal of all takes exclusively; a stop may happen during all other calls.
// No callback takes any of the locks.

#include "KeptServices.h"

#include "IntegrationSupport.h"

#include <algorithm>
#include <utility>

namespace orvx::stress {

namespace {

int percent(Random& random) {
    return std::uniform_int_distribution<int>(0, 99)(random);
}

bool isAnsweredByStop(const Operation& operation) {
    return operation.reason == OrvRegistrationResponse::DELEGATOR_NOT_INITIATED;
}

}  // namespace

/// A withdrawal is kept with any answer, except the answer of a stop.
bool KeptService::Registration::isOver() const {
    return isWithdrawn || operation->isRefused() ||
           std::any_of(withdrawals.begin(), withdrawals.end(), [](const auto& withdrawal) {
               return withdrawal->isAnswered() && !isAnsweredByStop(*withdrawal);
           });
}

bool KeptService::Registration::isDoubtful() const {
    return !isOver() && !withdrawals.empty() &&
           std::all_of(withdrawals.begin(), withdrawals.end(),
                       [](const auto& withdrawal) { return withdrawal->isAnswered(); });
}

void KeptService::announce(Announcer& announcer) {
    place_.traffic.expectPuts(path_);
    Registration& registration = registrations_.emplace_back();
    registration.description = std::to_string(++descriptions_);
    registration.operation = place_.ledger.begin(announcer.mark());
    const auto service = serviceregistryclient::service(path_.substr(1));
    service->setDescription(registration.description);
    registration.handle = announcer.client().registerServiceAtRegistry(
        {"registry", "127.0.0.1", place_.port}, service,
        place_.ledger.answer(registration.operation));
}

void KeptService::withdraw(Random& random) {
    std::vector<Registration*> live;
    for (Registration& registration : registrations_) {
        if (!registration.isWithdrawing() && !registration.isOver()) {
            live.push_back(&registration);
        }
    }
    if (!live.empty()) {
        Registration& registration = *live[random() % live.size()];
        withdraw(registration);
        if (percent(random) < 20) {
            withdraw(registration);
        }
    }
}

void KeptService::withdraw(Registration& registration) {
    place_.traffic.expectPuts(path_);  // to send the remaining description or learn the uuid
    ++place_.withdrawals;
    registration.withdrawals.push_back(place_.ledger.begin(registration.operation->client));
    registration.handle(place_.ledger.answer(registration.withdrawals.back()));
}

void KeptService::withdrawDoubtful() {
    for (Registration& registration : registrations_) {
        if (registration.isDoubtful()) {
            withdraw(registration);
        }
    }
}

void KeptService::noteWithdrawal() {
    place_.traffic.expectPuts(path_);
    for (Registration& registration : registrations_) {
        registration.isWithdrawn = true;
    }
}

void KeptService::tidy() {
    registrations_.erase(
        std::remove_if(registrations_.begin(), registrations_.end(),
                       [](const Registration& registration) { return registration.isOver(); }),
        registrations_.end());
}

std::size_t KeptService::live() const {
    return static_cast<std::size_t>(std::count_if(
        registrations_.begin(), registrations_.end(),
        [](const Registration& one) { return !one.isWithdrawing() && !one.isOver(); }));
}

bool KeptService::isCertain() const {
    return std::all_of(registrations_.begin(), registrations_.end(), [](const Registration& one) {
        return one.withdrawals.empty() || one.isOver();
    });
}

bool KeptService::isAnswered() const {
    return std::all_of(registrations_.begin(), registrations_.end(),
                       [](const Registration& one) { return one.operation->isAnswered(); });
}

std::string KeptService::latest() const {
    const auto latest =
        std::find_if(registrations_.rbegin(), registrations_.rend(),
                     [](const Registration& registration) { return !registration.isOver(); });
    return latest == registrations_.rend() ? "" : latest->description;
}

class KeptServices::Member final : public Unit {
  public:
    Member(KeptServices& all, KeptService& service) : all_(all), service_(service) {}

    void turn(Random& random) override {
        const int choice = percent(random);
        if (choice == 99 && percent(random) < 5) {
            all_.withdrawAll();
            return;
        }
        const std::shared_lock<std::shared_mutex> lock(all_.calls_);
        service_.tidy();
        service_.withdrawDoubtful();
        const std::size_t live = service_.live();
        if (live == 0 || (choice < 10 && live < 3)) {
            service_.announce(all_.announcer_);
        } else if (choice < 25) {
            service_.withdraw(random);
        }
        if (choice < 2) {
            service_.withdraw(random);  // may come before the first PUT is answered
        }
    }

    void ask() override { service_.announce(all_.announcer_); }

  private:
    KeptServices& all_;
    KeptService& service_;
};

KeptServices::KeptServices(Place& place, const std::string& name, int services,
                           const Announcer::Options& options)
    : place_(place), owner_('/' + name), announcer_(place.ledger, options) {
    for (int i = 0; i < services; ++i) {
        services_.emplace_back(place, name + std::to_string(i));
    }
}

std::vector<std::unique_ptr<Unit>> KeptServices::units() {
    std::vector<std::unique_ptr<Unit>> units;
    for (KeptService& service : services_) {
        units.push_back(std::make_unique<Member>(*this, service));
    }
    return units;
}

/// Not while the client is stopped, because nothing would be withdrawn.
void KeptServices::withdrawAll() {
    const std::unique_lock<std::shared_mutex> calls(calls_);
    const std::unique_lock<std::mutex> running(running_, std::try_to_lock);
    if (!running) {
        return;
    }
    const auto all = place_.ledger.beginWithdrawalOfAll(announcer_.mark());
    all->before = announcer_.heldCount();
    place_.withdrawals += all->before;
    for (KeptService& service : services_) {
        service.noteWithdrawal();
    }
    announcer_.client().unregisterAllServicesFromRegistry(place_.ledger.answer(all));
    all->after = announcer_.heldCount();
}

void KeptServices::restart(milliseconds pause) {
    const std::lock_guard<std::mutex> running(running_);
    place_.noteStop(announcer_.pause());
    Pace().wait(pause);
    announcer_.resume();
    place_.traffic.expectChecks(owner_);
}

}  // namespace orvx::stress
