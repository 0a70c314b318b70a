// PUTs over kept connections that are all busy, so that strace can count the system calls: the
// difference between two runs is due to their numbers of requests. The main thread submits and
// waits; handlers run on the library's I/O thread and only count.
// Usage: strace -f -b execve -c orvx_bench_system_calls REQUESTS

#include "Measure.h"
#include "Requests.h"
#include "RunningContext.h"
#include "ServerProcess.h"

#include <orvx/communication/OrvClientCommunicationContext.h>

namespace orvx::benchmarks {

namespace {

using communication::HttpResponse;

void putAll(const Requests& requests, std::size_t count) {
    const ServerProcess server;
    const auto config = httpConfig(kConnections, Transport::Plain);
    communication::OrvClientCommunicationContext context;
    context.setHttpConfig(config);
    context.init();
    const auto session = context.getClientHttpFactory().createSession(
        "127.0.0.1", server.port(), config, context.getHealthCheck(),
        context.getClientStatistics());
    Countdown left(count);
    for (std::size_t i = 0; i < count; ++i) {
        const std::string& body = requests.bodies[i % requests.size()];
        session->sendPutRequestJson(requests.uris[i % requests.size()], body.data(), body.size(),
                                    [&left](const HttpResponse&) { left.count(); });
    }
    left.wait();
}

}  // namespace

}  // namespace orvx::benchmarks

int main(int argc, char** argv) {
    using namespace orvx::benchmarks;
    useFirstProcessor();
    putAll(Requests(100), argument(argc, argv, 1, 1000));
}
