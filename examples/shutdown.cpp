// Serves until SIGTERM or SIGINT, or until the registry refuses it, then withdraws within a bound.
// Ends with 0 when it was announced and withdrawn. Usage: shutdown REGISTRY_HOST REGISTRY_PORT
#include <serviceregistryclient/OrvServiceRegistryContext.h>

#include <unistd.h>

#include <atomic>
#include <csignal>
#include <iostream>
#include <thread>

using namespace orvx::serviceregistryclient;
using namespace std::chrono_literals;

int main(int argc, char** argv) {
    if (argc != 3) {
        return 2;
    }
    sigset_t signals;  // blocked before the first thread is made: only sigwait() takes them
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    std::atomic<bool> isAnnounced{false}, isRefused{false};  // before the context, which uses them
    OrvServiceRegistryContext context;
    context.setSyncCallUnregisterTimeout(1s);
    context.init();
    auto& client = *context.getServiceRegistryClient();
    const auto echo = client.getSharedServiceCreate({"echo", "127.0.0.1", 8080});
    echo->setUri("/echo/127.0.0.1:8080");  // another instance puts its entry at another path
    const auto port = static_cast<std::uint16_t>(std::stoi(argv[2]));
    client.registerServiceAtRegistry({"registry", argv[1], port}, echo, [&](const auto& outcome) {
        (outcome.status == OrvRegistrationResponse::OK ? isAnnounced : isRefused) = true;
        std::cout << (isAnnounced ? "announced" : "refused") << std::endl;
        isRefused ? kill(getpid(), SIGTERM) : 0;
    });
    int signal = 0;
    sigwait(&signals, &signal);
    for (auto pause = 100ms; pause < 1s && !isRefused; pause *= 2) {
        if (isAnnounced && client.unregisterAllServicesFromRegistry().first) {
            std::cout << "withdrawn\n";
            return 0;
        }
        std::this_thread::sleep_for(pause);  // the first answer is still out, or a DELETE failed
    }
    std::cout << (isRefused ? "" : "not withdrawn\n");
    return 1;
}
