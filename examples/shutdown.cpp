// Serves until SIGTERM or SIGINT, then withdraws everything within a bound, whatever is under way.
// Usage: shutdown REGISTRY_HOST REGISTRY_PORT
#include <serviceregistryclient/OrvServiceRegistryContext.h>

#include <csignal>
#include <iostream>
#include <thread>

using namespace orvx::serviceregistryclient;
using namespace std::chrono_literals;
using orvx::common::ServiceInfo;

int main(int argc, char** argv) {
    if (argc != 3) {
        std::cerr << "usage: shutdown REGISTRY_HOST REGISTRY_PORT\n";
        return 2;
    }
    sigset_t signals;  // blocked before the first thread is made: only sigwait() takes them
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    const ServiceInfo registry("registry", argv[1], static_cast<std::uint16_t>(std::stoi(argv[2])));
    OrvServiceRegistryContext context;
    context.setSyncCallUnregisterTimeout(1s);
    context.init();
    IOrvServiceRegistryClient& client = *context.getServiceRegistryClient();
    client.registerServiceAtRegistry(
        registry, client.getSharedServiceCreate(ServiceInfo("echo", "127.0.0.1", 8080)),
        [](const auto&) { std::cout << "announced" << std::endl; });
    int signal = 0;
    sigwait(&signals, &signal);
    const auto deadline = std::chrono::steady_clock::now() + 4s;
    bool withdrawn = client.unregisterAllServicesFromRegistry().first;
    while (!withdrawn && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(100ms);  // e.g. its first PUT is still out: SERVICE_NOT_FOUND
        withdrawn = client.unregisterAllServicesFromRegistry().first;
    }
    std::cout << (withdrawn ? "withdrawn" : "not withdrawn in time") << '\n';
}
