// Announces a set of services in one blocking call, and withdraws everything in another.
// Usage: collection REGISTRY_HOST REGISTRY_PORT
#include <serviceregistryclient/OrvServiceRegistryContext.h>

#include <cstdlib>
#include <iostream>

using namespace orvx::serviceregistryclient;
using orvx::common::ServiceInfo;

int main(int argc, char** argv) {
    const long port = argc == 3 ? std::strtol(argv[2], nullptr, 10) : 0;
    if (port < 1 || port > 65535) {
        std::cerr << "usage: collection REGISTRY_HOST REGISTRY_PORT\n";
        return 2;
    }
    const ServiceInfo registry("registry", argv[1], static_cast<std::uint16_t>(port));
    OrvServiceRegistryContext context;
    context.enableResilience(true);  // keeps announcements valid, whatever the registry does
    context.init();
    IOrvServiceRegistryClient& client = *context.getServiceRegistryClient();

    IOrvServiceRegistryClient::ServiceSet services;
    for (const char* name : {"echo", "time", "quote"}) {
        const auto service = client.getSharedServiceCreate(ServiceInfo(name, "127.0.0.1", 8080));
        service->setUri(std::string("/") + name + "/127.0.0.1:8080");  // one for each instance
        services.insert(service);
    }
    const auto [allAnnounced, outcomes] = client.registerServicesAtRegistry(registry, services);
    for (const auto& [service, outcome] : outcomes) {
        std::cout << service->getName() << ": "
                  << OrvRegistrationResponse::statusString(outcome.response.status) << std::endl;
    }

    const bool allWithdrawn = client.unregisterAllServicesFromRegistry().first;
    std::cout << "withdrawn: " << (allWithdrawn ? "all" : "not all") << '\n';
    return allAnnounced && allWithdrawn ? 0 : 1;
}
