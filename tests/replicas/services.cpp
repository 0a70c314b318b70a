// Announces COUNT services at /NAME/0, /NAME/1, ... with resilience. A quarter of them is
// repeatedly withdrawn and announced again until SIGUSR1. SIGTERM withdraws all and ends the
// program. Writes one JSON line for each operation, each answer and each event, with the time in
// milliseconds since 1970. Usage: services HOST PORT NAME COUNT CHECK_INTERVAL_IN_SECONDS SEED
#include <serviceregistryclient/OrvServiceRegistryContext.h>

#include <csignal>
#include <cstdlib>
#include <iostream>
#include <map>
#include <mutex>
#include <nlohmann/json.hpp>
#include <random>

using namespace orvx::serviceregistryclient;
using orvx::common::ServiceInfo;
using std::chrono::milliseconds;
using SteadyClock = std::chrono::steady_clock;
using SystemClock = std::chrono::system_clock;

namespace {

milliseconds::rep sinceEpoch(SystemClock::time_point time) {
    return std::chrono::duration_cast<milliseconds>(time.time_since_epoch()).count();
}

void write(nlohmann::json line) {
    static std::mutex mutex;
    const std::lock_guard<std::mutex> lock(mutex);
    line["time"] = sinceEpoch(SystemClock::now());
    std::cout << line.dump() << std::endl;
}

void writeEvent(const RegistrationEvent& event) {
    const RegistrationStatus& status = event.status;
    nlohmann::json line = {{"event", registrationEventToString(event.kind)},
                           {"path", status.uri},
                           {"uuid", status.uuid}};
    if (status.lastConfirmed) {
        line["confirmed"] = sinceEpoch(*status.lastConfirmed);
    }
    if (event.kind == RegistrationEvent::Kind::Lost ||
        event.kind == RegistrationEvent::Kind::Unreachable) {
        line["status"] = status.lastFailure->httpStatus;
        line["reason"] = status.lastFailure->text;
    }
    write(line);
}

class Service {
  public:
    Service(IOrvServiceRegistryClient& client, ServiceInfo registry, std::string path)
        : client_(client), registry_(std::move(registry)), path_(std::move(path)) {}

    void announce() {
        write({{"event", "announce"}, {"path", path_}});
        const auto service = client_.getSharedServiceCreate({path_.substr(1), "127.0.0.1", 80});
        handle_ = client_.registerServiceAtRegistry(registry_, service, answer("registered"));
    }
    void withdraw() {
        write({{"event", "withdraw"}, {"path", path_}});
        handle_(answer("unregistered"));
        handle_ = nullptr;
    }
    void toggle() { handle_ ? withdraw() : announce(); }
    bool isAnnounced() const { return handle_ != nullptr; }

  private:
    IOrvServiceRegistryClient::ResponseCallback answer(const std::string& event) {
        return [event, path = path_](const OrvRegistrationResponse& response) {
            write({{"event", event},
                   {"path", path},
                   {"ok", response.status == OrvRegistrationResponse::OK}});
        };
    }

    IOrvServiceRegistryClient& client_;
    const ServiceInfo registry_;
    const std::string path_;
    IOrvServiceRegistryClient::UnregisterHandle handle_;
};

sigset_t blockSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    return signals;
}

// Toggles every fourth service a few seconds after its last change, until a signal arrives. Returns
// the signal.
int comeAndGo(std::vector<Service>& services, std::mt19937& random, const sigset_t& signals) {
    const auto pause = [&] {
        return milliseconds(std::uniform_int_distribution<int>(500, 8'000)(random));
    };
    std::multimap<SteadyClock::time_point, Service*> due;
    for (std::size_t i = 0; i < services.size(); i += 4) {
        due.emplace(SteadyClock::now() + pause(), &services[i]);
    }
    const timespec tick{0, 20'000'000};
    int signal = -1;
    while (signal < 0) {
        while (due.begin()->first <= SteadyClock::now()) {
            Service* const service = due.begin()->second;
            due.erase(due.begin());
            service->toggle();
            due.emplace(SteadyClock::now() + pause(), service);
        }
        signal = sigtimedwait(&signals, nullptr, &tick);
    }
    return signal;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 7) {
        std::cerr << "usage: services HOST PORT NAME COUNT CHECK_INTERVAL_IN_SECONDS SEED\n";
        return 2;
    }
    const sigset_t signals = blockSignals();
    const ServiceInfo registry("registry", argv[1],
                               static_cast<std::uint16_t>(std::stoul(argv[2])));
    const std::chrono::seconds interval(std::stoi(argv[5]));
    OrvServiceRegistryContext context;
    context.enableResilience(true);
    context.setCheckInterval(interval);
    context.setHeadTimeout(interval * 3 / 4);
    context.setRetryInterval(milliseconds(100));
    context.setWithdrawAtDeinit(std::chrono::seconds(10));
    context.setRegistrationListener(writeEvent);
    context.init();

    std::vector<Service> services;
    for (int i = 0; i < std::stoi(argv[4]); ++i) {
        services.emplace_back(*context.getServiceRegistryClient(), registry,
                              std::string("/") + argv[3] + "/" + std::to_string(i));
        services.back().announce();
    }
    std::mt19937 random(static_cast<std::mt19937::result_type>(std::stoul(argv[6])));
    int signal = comeAndGo(services, random, signals);
    while (signal != SIGTERM) {
        signal = sigwaitinfo(&signals, nullptr);
    }
    for (Service& service : services) {
        if (service.isAnnounced()) {
            service.withdraw();
        }
    }
    context.deinit();
    return 0;
}
