// Announces COUNT services without checks, and all of them again whenever the registry has lost a
// canary, or at SIGHUP; SIGTERM withdraws them. Usage: many REGISTRY_HOST REGISTRY_PORT COUNT
#include <serviceregistryclient/OrvServiceRegistryContext.h>

#include <csignal>
#include <future>
#include <iostream>

using namespace orvx::serviceregistryclient;
using orvx::common::ServiceInfo;
using Client = IOrvServiceRegistryClient;

/// Asks for something, and waits until so many services have succeeded.
bool all(std::size_t count, const std::function<void(Client::ServiceCallback)>& ask) {
    const auto done = std::make_shared<std::promise<void>>();
    ask([done, left = std::make_shared<std::size_t>(count)](const auto&, const auto& outcome) {
        outcome.status == OrvRegistrationResponse::OK && --*left == 0 ? done->set_value() : void();
    });
    return done->get_future().wait_for(std::chrono::seconds(30)) == std::future_status::ready;
}

int main(int argc, char** argv) {
    if (argc != 4) {
        return 2;
    }
    sigset_t signals;  // blocked before the first thread is made: only sigwait() takes them
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGHUP);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    const ServiceInfo registry("registry", argv[1], static_cast<std::uint16_t>(std::stoi(argv[2])));
    OrvServiceRegistryContext fleet, canary;
    fleet.enableCheck(false);
    fleet.init();
    canary.setCheckInterval(std::chrono::seconds(4));  // longer than the head time-out, 3 s
    canary.setRegisterWithPrefix(true);
    canary.init();
    Client& own = *canary.getServiceRegistryClient();
    own.addServiceRegisterStatusListener([self = pthread_self()](const auto&, bool registered) {
        registered ? pthread_kill(self, SIGHUP) : 0;
    });
    const std::string me = "/10.0.0.7:8080/";  // another instance has other paths
    own.registerServiceAtRegistry(registry, own.getSharedServiceCreate({"canary", "", 0, me}), {});
    Client::ServiceSet services;
    for (int i = 0; i < std::stoi(argv[3]); ++i) {
        services.insert(own.getSharedServiceCreate({"echo-" + std::to_string(i), "", 8080, me}));
    }
    for (int signal = 0; sigwait(&signals, &signal) == 0 && signal == SIGHUP;) {
        fleet.deinit();  // forgets what was announced before, and withdraws nothing
        fleet.init();
        const bool announced = all(services.size(), [&](const Client::ServiceCallback& done) {
            fleet.getServiceRegistryClient()->registerServicesAtRegistry(registry, services, done);
        });
        std::cout << (announced ? "announced" : "not all announced") << std::endl;
    }
    const bool withdrawn = all(services.size(), [&](const Client::ServiceCallback& done) {
        fleet.getServiceRegistryClient()->unregisterAllServicesFromRegistry(done);
    });
    return withdrawn && own.unregisterAllServicesFromRegistry().first ? 0 : 1;
}
