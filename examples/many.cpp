// Announces COUNT services until SIGTERM, SIGINT or a refusal by the registry, then withdraws them.
// Usage: many REGISTRY_HOST REGISTRY_PORT COUNT
#include <serviceregistryclient/OrvServiceRegistryContext.h>

#include <csignal>
#include <cstdlib>
#include <iostream>

using namespace orvx::serviceregistryclient;
using orvx::common::ServiceInfo;

int main(int argc, char** argv) {
    const long port = argc == 4 ? std::strtol(argv[2], nullptr, 10) : 0;
    const long count = argc == 4 ? std::strtol(argv[3], nullptr, 10) : 0;
    if (port < 1 || port > 65535 || count < 1) {
        std::cerr << "usage: many REGISTRY_HOST REGISTRY_PORT COUNT\n";
        return 2;
    }
    sigset_t signals;  // blocked before the first thread is made: only sigwait() takes them
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    const ServiceInfo registry("registry", argv[1], static_cast<std::uint16_t>(port));
    OrvServiceRegistryContext context;
    context.enableResilience(true);  // each service has its own check; a set may have any size
    context.setRegisterWithPrefix(true);
    context.setCheckInterval(std::chrono::seconds(4));  // longer than the head time-out, 3 s
    context.init();
    IOrvServiceRegistryClient& client = *context.getServiceRegistryClient();

    const std::string me = "/127.0.0.1:8080/";  // another instance has other paths
    IOrvServiceRegistryClient::ServiceSet services;
    for (long i = 0; i < count; ++i) {
        services.insert(
            client.getSharedServiceCreate({"echo-" + std::to_string(i), "127.0.0.1", 8080, me}));
    }
    const auto [allAnnounced, outcomes] = client.registerServicesAtRegistry(registry, services);
    bool isRefused = false;
    for (const auto& [service, outcome] : outcomes) {
        const auto errorCode = outcome.response.errorCode;
        if (errorCode != OrvRegistrationResponse::NONE) {
            std::cerr << service->getName() << ": "
                      << OrvRegistrationResponse::errorCodeString(errorCode) << '\n';
        }
        isRefused |= errorCode == OrvRegistrationResponse::SERVICE_REGISTRY_ERROR;
    }
    if (!isRefused) {
        std::cout << (allAnnounced ? "announced" : "not all announced yet") << std::endl;
        int signal = 0;
        sigwait(&signals, &signal);
    }
    return client.unregisterAllServicesFromRegistry().first && !isRefused ? 0 : 1;
}
