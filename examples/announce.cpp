// Announces the service "echo" and keeps it announced until standard input ends or has a line.
// Usage: announce REGISTRY_HOST REGISTRY_PORT
#include <serviceregistryclient/OrvServiceRegistryContext.h>

#include <cstdlib>
#include <future>
#include <iostream>

using namespace orvx::serviceregistryclient;
using orvx::common::ServiceInfo;

int main(int argc, char** argv) {
    const long port = argc == 3 ? std::strtol(argv[2], nullptr, 10) : 0;
    if (port < 1 || port > 65535) {
        std::cerr << "usage: announce REGISTRY_HOST REGISTRY_PORT\n";
        return 2;
    }
    const ServiceInfo registry("registry", argv[1], static_cast<std::uint16_t>(port));
    OrvServiceRegistryContext context;
    context.enableResilience(true);  // keeps it announced, whatever the registry does
    context.setCheckInterval(std::chrono::seconds(4));  // longer than the head time-out, 3 s
    context.init();
    IOrvServiceRegistryClient& client = *context.getServiceRegistryClient();
    client.addServiceRegisterStatusListener([](const auto& service, bool registered) {
        std::cout << service->getName() << (registered ? " is registered" : " is not registered")
                  << std::endl;
    });
    const auto echo = client.getSharedServiceCreate(ServiceInfo("echo", "127.0.0.1", 8080));
    echo->setUri("/echo/127.0.0.1:8080");  // another instance puts its entry at another path
    const auto withdraw = client.registerServiceAtRegistry(
        registry, echo, [](const OrvRegistrationResponse& outcome) {
            std::cout << "announced: " << OrvRegistrationResponse::statusString(outcome.status)
                      << std::endl;
        });

    std::cin.get();
    std::promise<OrvRegistrationResponse> withdrawn;
    withdraw([&](const OrvRegistrationResponse& outcome) { withdrawn.set_value(outcome); });
    const OrvRegistrationResponse outcome = withdrawn.get_future().get();
    std::cout << "withdrawn: " << OrvRegistrationResponse::statusString(outcome.status)
              << std::endl;
    return outcome.status;
}
