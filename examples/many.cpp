// Announces COUNT services until SIGTERM, which withdraws them.
// Usage: many REGISTRY_HOST REGISTRY_PORT COUNT
#include <serviceregistryclient/OrvServiceRegistryContext.h>

#include <csignal>
#include <iostream>

using namespace orvx::serviceregistryclient;
using orvx::common::ServiceInfo;

int main(int argc, char** argv) {
    if (argc != 4) {
        return 2;
    }
    sigset_t signals;  // blocked before the first thread is made: only sigwait() takes it
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    const ServiceInfo registry("registry", argv[1], static_cast<std::uint16_t>(std::stoi(argv[2])));
    OrvServiceRegistryContext context;
    context.enableResilience(true);  // checks each by itself; sets have no bound
    context.setRegisterWithPrefix(true);
    context.setCheckInterval(std::chrono::seconds(4));  // longer than the head time-out, 3 s
    context.init();
    IOrvServiceRegistryClient& client = *context.getServiceRegistryClient();

    const std::string me = "/10.0.0.7:8080/";  // another instance has other paths
    IOrvServiceRegistryClient::ServiceSet services;
    for (int i = 0; i < std::stoi(argv[3]); ++i) {
        services.insert(client.getSharedServiceCreate({"echo-" + std::to_string(i), "", 8080, me}));
    }
    const bool announced = client.registerServicesAtRegistry(registry, services).first;
    std::cout << (announced ? "announced" : "not all announced yet") << std::endl;
    int signal = 0;
    sigwait(&signals, &signal);
    return client.unregisterAllServicesFromRegistry().first ? 0 : 1;
}
