// Serves until SIGTERM or SIGINT, or until the registry refuses it, then withdraws within a bound.
// Ends with 0 unless it was refused or its entry may be left. Usage: shutdown REGISTRY_HOST
// REGISTRY_PORT
#include <serviceregistryclient/OrvServiceRegistryContext.h>

#include <unistd.h>

#include <atomic>
#include <csignal>
#include <iostream>

using namespace orvx::serviceregistryclient;

int main(int argc, char** argv) {
    if (argc != 3) {
        return 2;
    }
    sigset_t signals;  // blocked before the first thread is made: only sigwait() takes them
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    std::atomic<bool> isRefused{false}, isWithdrawn{false};  // before the context, which uses them
    OrvServiceRegistryContext context;
    context.enableResilience(true);
    context.setWithdrawAtDeinit(std::chrono::seconds(5));
    context.setRegistrationListener([&](const RegistrationEvent& event) {
        isWithdrawn = event.kind == RegistrationEvent::Kind::Withdrawn;
    });
    context.init();
    auto& client = *context.getServiceRegistryClient();
    const auto echo = client.getSharedServiceCreate({"echo", "127.0.0.1", 8080});
    echo->setUri("/echo/127.0.0.1:8080");  // another instance puts its entry at another path
    const auto port = static_cast<std::uint16_t>(std::stoi(argv[2]));
    client.registerServiceAtRegistry({"registry", argv[1], port}, echo, [&](const auto& outcome) {
        isRefused = outcome.errorCode == OrvRegistrationResponse::SERVICE_REGISTRY_ERROR;
        std::cout << (outcome.status == OrvRegistrationResponse::OK ? "announced\n" : "")
                  << (isRefused ? "refused\n" : "") << std::flush;
        isRefused ? kill(getpid(), SIGTERM) : 0;
    });
    int signal = 0;
    sigwait(&signals, &signal);
    context.deinit();  // withdraws first; the log names what could not be withdrawn
    std::cout << (isRefused ? "" : isWithdrawn ? "withdrawn\n" : "not withdrawn\n");
    return isWithdrawn && !isRefused ? 0 : 1;
}
