// The start and the end of a context without requests, as a multiple of three threads and a multi
// handle of libcurl without any other code. Everything runs on the main thread.
// Usage: orvx_bench_lifecycle [ROUNDS]

#include "Measure.h"

#include <serviceregistryclient/OrvServiceRegistryContext.h>

#include <curl/curl.h>

#include <array>
#include <thread>

namespace orvx::benchmarks {

namespace {

constexpr std::size_t kTimes = 50;

void liveAsContext() {
    serviceregistryclient::OrvServiceRegistryContext context;
    context.init();
    context.deinit();
}

void liveBare() {
    CURLM* const multi = curl_multi_init();
    std::array<std::thread, 3> threads;
    for (std::thread& thread : threads) {
        thread = std::thread([] {});
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    curl_multi_cleanup(multi);
}

void repeat(void (*life)()) {
    for (std::size_t i = 0; i < kTimes; ++i) {
        life();
    }
}

}  // namespace

}  // namespace orvx::benchmarks

int main(int argc, char** argv) {
    using namespace orvx::benchmarks;
    const std::size_t rounds = argument(argc, argv, 1, 15);
    std::vector<double> wall;
    std::vector<double> cpu;
    liveAsContext();
    for (std::size_t round = 0; round < rounds; ++round) {
        wall.push_back(wallPer(kTimes, [] { repeat(liveAsContext); }) /
                       wallPer(kTimes, [] { repeat(liveBare); }));
        cpu.push_back(cpuPer(kTimes, [] { repeat(liveAsContext); }) /
                      cpuPer(kTimes, [] { repeat(liveBare); }));
    }
    Line("time").add("ratio", wall).print();
    Line("processor time").add("ratio", cpu).print();
}
