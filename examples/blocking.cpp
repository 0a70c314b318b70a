// Announces a service in one blocking call, and withdraws it in another.
// Usage: blocking REGISTRY_HOST REGISTRY_PORT
#include <serviceregistryclient/OrvServiceRegistryContext.h>

#include <cstdlib>
#include <iostream>

using namespace orvx::serviceregistryclient;
using orvx::common::ServiceInfo;

int main(int argc, char** argv) {
    const long port = argc == 3 ? std::strtol(argv[2], nullptr, 10) : 0;
    if (port < 1 || port > 65535) {
        std::cerr << "usage: blocking REGISTRY_HOST REGISTRY_PORT\n";
        return 2;
    }
    const ServiceInfo registry("registry", argv[1], static_cast<std::uint16_t>(port));
    const ServiceInfo self("echo", "127.0.0.1", 8080);
    OrvServiceRegistryContext context;
    context.enableResilience(true);  // keeps announcements valid, whatever the registry does
    context.init();
    IOrvServiceRegistryClient& client = *context.getServiceRegistryClient();

    const auto service = client.getSharedServiceCreate(self);
    service->setUri("/echo/127.0.0.1:8080");  // another instance puts its entry at another path
    const auto echo = client.registerServiceAtRegistry(registry, service);
    if (echo.response.status != OrvRegistrationResponse::OK) {
        std::cerr << "not announced: "
                  << OrvRegistrationResponse::errorCodeString(echo.response.errorCode) << '\n';
        echo.unregister();  // after a time-out the client still tries to announce it
        return 1;
    }
    std::cout << "announced" << std::endl;

    // ... serve; the library keeps the entry valid ...

    const OrvRegistrationResponse outcome = echo.unregister();
    std::cout << "withdrawn: " << OrvRegistrationResponse::statusString(outcome.status)
              << std::endl;
    return outcome.status;
}
