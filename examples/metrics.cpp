// Announces the service "echo" and serves what the client counts, as text for Prometheus, until
// standard input ends. Usage: metrics REGISTRY_HOST REGISTRY_PORT METRICS_PORT
#include <serviceregistryclient/OrvServiceRegistryContext.h>
#include <boost/asio.hpp>
#include <iostream>
#include <thread>

using namespace orvx::communication;
using namespace boost::asio::ip;

std::string metrics(const ClientStatistics::Snapshot& counted) {
    std::ostringstream requests("# TYPE orvx_requests_total counter\n", std::ios::ate);
    std::ostringstream answers("# TYPE orvx_answers_total counter\n", std::ios::ate);
    for (const auto& [method, of] : counted.byMethod) {
        for (const auto& [status, count] : of.byStatus) {
            requests << "orvx_requests_total{method=\"" << methodToString(method) << "\",status=\""
                     << communicationStatusToString(status) << "\"} " << count << '\n';
        }
        for (const auto& [code, count] : of.byHttpStatus) {
            answers << "orvx_answers_total{method=\"" << methodToString(method) << "\",code=\""
                    << code << "\"} " << count << '\n';
        }
    }
    return requests.str() + answers.str();
}

void serve(tcp::acceptor& acceptor, const ClientStatistics& statistics) {
    for (boost::system::error_code ended; !ended;) {
        tcp::iostream peer;
        acceptor.accept(peer.socket(), ended);
        peer.expires_after(std::chrono::seconds(5));
        for (char line[4096] = ""; peer.getline(line, sizeof line) && *line != '\r';) {
        }
        peer << "HTTP/1.0 200 OK\r\nContent-Type: text/plain; version=0.0.4\r\n\r\n"
             << metrics(statistics.snapshot()) << std::flush;
    }
}

int main(int argc, char** argv) {
    if (argc != 4) {
        return 2;
    }
    HttpConfig http;
    http.statistics = std::make_shared<ClientStatistics>();
    orvx::serviceregistryclient::OrvServiceRegistryContext context;
    context.setHttpConfig(http);
    context.init();
    auto& client = *context.getServiceRegistryClient();
    const auto echo = client.registerServiceAtRegistry(
        {"registry", argv[1], static_cast<std::uint16_t>(std::stoi(argv[2]))},
        client.getSharedServiceCreate({"echo", "127.0.0.1", 8080}));
    const auto port = static_cast<std::uint16_t>(std::stoi(argv[3]));
    tcp::acceptor acceptor(boost::asio::system_executor(), {address_v4::loopback(), port});
    std::cout << "http://" << acceptor.local_endpoint() << "/metrics" << std::endl;
    std::thread server([&] { serve(acceptor, *http.statistics); });
    std::cin.get();
    shutdown(acceptor.native_handle(), SHUT_RDWR);
    server.join();
    return echo.unregister().status;
}
