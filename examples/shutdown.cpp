// Serves until SIGTERM, SIGINT or a refusal by the registry, then withdraws within a time limit.
// Exits with 0 unless the service was refused or its entry may be left.
// Usage: shutdown REGISTRY_HOST REGISTRY_PORT
#include <serviceregistryclient/OrvServiceRegistryContext.h>

#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <iostream>

using namespace orvx::serviceregistryclient;
using orvx::common::ServiceInfo;

int main(int argc, char** argv) {
    const long port = argc == 3 ? std::strtol(argv[2], nullptr, 10) : 0;
    if (port < 1 || port > 65535) {
        std::cerr << "usage: shutdown REGISTRY_HOST REGISTRY_PORT\n";
        return 2;
    }
    sigset_t signals;  // blocked before the first thread is created, for sigwait()
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    // Declared before the context, whose callbacks use them.
    std::atomic<bool> isRefused{false}, wasAnnounced{false}, isWithdrawn{false};
    OrvServiceRegistryContext context;
    context.enableResilience(true);
    context.setWithdrawAtDeinit(std::chrono::seconds(5));
    context.setRegistrationListener([&](const RegistrationEvent& event) {
        wasAnnounced = event.status.lastConfirmed.has_value();
        isWithdrawn = event.kind == RegistrationEvent::Kind::Withdrawn;
    });
    context.init();
    auto& client = *context.getServiceRegistryClient();
    const auto echo = client.getSharedServiceCreate({"echo", "127.0.0.1", 8080});
    echo->setUri("/echo/127.0.0.1:8080");  // another instance puts its entry at another path
    const ServiceInfo registry("registry", argv[1], static_cast<std::uint16_t>(port));
    client.registerServiceAtRegistry(registry, echo, [&](const auto& outcome) {
        isRefused = outcome.errorCode == OrvRegistrationResponse::SERVICE_REGISTRY_ERROR;
        std::cout << (outcome.status == OrvRegistrationResponse::OK ? "announced\n" : "")
                  << (isRefused ? "refused\n" : "") << std::flush;
        isRefused ? kill(getpid(), SIGTERM) : 0;
    });
    int signal = 0;
    sigwait(&signals, &signal);
    context.deinit();  // withdraws first; the log names what could not be withdrawn
    const char* const outcome = wasAnnounced ? "withdrawn\n" : "nothing is left\n";
    std::cout << (isRefused ? "" : isWithdrawn ? outcome : "not withdrawn\n");
    return isWithdrawn && !isRefused ? 0 : 1;
}
