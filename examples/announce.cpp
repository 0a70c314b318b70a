// Announces the service "echo" and keeps it announced until standard input ends or has a line.
// Usage: announce REGISTRY_HOST REGISTRY_PORT
#include <serviceregistryclient/OrvServiceRegistryContext.h>

#include <atomic>
#include <cstdlib>
#include <future>
#include <iostream>

using namespace orvx::serviceregistryclient;
using orvx::common::ServiceInfo;

const char* text(const OrvRegistrationResponse& outcome) {
    return outcome.status == OrvRegistrationResponse::OK
               ? "OK"
               : OrvRegistrationResponse::errorCodeString(outcome.errorCode);
}

int main(int argc, char** argv) {
    const long port = argc == 3 ? std::strtol(argv[2], nullptr, 10) : 0;
    if (port < 1 || port > 65535) {
        std::cerr << "usage: announce REGISTRY_HOST REGISTRY_PORT\n";
        return 2;
    }
    const ServiceInfo registry("registry", argv[1], static_cast<std::uint16_t>(port));
    std::atomic<bool> isAnnounced{false};  // before the context, whose callback sets it
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
        registry, echo, [&](const OrvRegistrationResponse& outcome) {
            isAnnounced = outcome.status == OrvRegistrationResponse::OK;
            std::cout << "announced: " << text(outcome) << std::endl;
        });

    std::cin.get();
    std::promise<OrvRegistrationResponse> withdrawn;
    withdraw([&](const OrvRegistrationResponse& outcome) { withdrawn.set_value(outcome); });
    const OrvRegistrationResponse outcome = withdrawn.get_future().get();
    if (!isAnnounced) {
        return 1;  // there was nothing to withdraw
    }
    std::cout << "withdrawn: " << text(outcome) << std::endl;
    return outcome.status;
}
