// The program orvx-registry: options, one line that says where it listens, and a clean end.
// The registry runs on a thread of its own, while the main thread waits for a signal to stop. Both
// signals are blocked before that thread starts, so that only sigwait() takes them.
// There is no lock.

#include <CLI/CLI.hpp>
#include <csignal>
#include <exception>
#include <iostream>
#include <thread>

#include "RegistryServer.h"

namespace {

using orvx::registry::RegistryOptions;
using orvx::registry::RegistryServer;

sigset_t blockStopSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    return signals;
}

void serve(const RegistryOptions& options) {
    const sigset_t stopSignals = blockStopSignals();
    RegistryServer server(options);
    std::thread thread([&server] { server.run(); });
    std::cout << "orvx-registry listening on " << server.url() << std::endl;
    int signal = 0;
    sigwait(&stopSignals, &signal);
    server.stop();
    thread.join();
}

}  // namespace

int main(int argc, char** argv) {
    RegistryOptions options;
    CLI::App app("A small HTTP registry to develop and test against.", "orvx-registry");
    app.add_option("--host", options.host, "Address or name to listen at")->capture_default_str();
    app.add_option("--port", options.port, "Port to listen at, 0 for any free one")
        ->capture_default_str();
    app.add_option("--max-body", options.maxBody, "Largest body of a request, in bytes")
        ->check(CLI::Range(std::uint64_t{1}, std::uint64_t{1} << 30))
        ->capture_default_str();
    app.add_option("--max-connections", options.maxConnections,
                   "Most connections at once; a further one ends another")
        ->check(CLI::Range(std::size_t{1}, std::size_t{1} << 20))
        ->capture_default_str();
    CLI11_PARSE(app, argc, argv);
    try {
        serve(options);
    } catch (const std::exception& error) {
        std::cerr << "orvx-registry: cannot listen at " << options.host << " port " << options.port
                  << ": " << error.what() << std::endl;
        return 1;
    }
}
