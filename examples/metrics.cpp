// Announces the service "echo" and serves its state and its requests as text for Prometheus until
// standard input ends. Usage: metrics REGISTRY_HOST REGISTRY_PORT METRICS_PORT
#include "PrometheusText.h"

#include <serviceregistryclient/OrvServiceRegistryContext.h>

#include <boost/asio.hpp>

#include <cstdlib>
#include <iostream>
#include <thread>

using namespace boost::asio::ip;
using orvx::communication::ClientStatistics;
using orvx::communication::HttpConfig;
using orvx::serviceregistryclient::OrvServiceRegistryContext;

void serve(tcp::acceptor& acceptor, const OrvServiceRegistryContext& context,
           const ClientStatistics& statistics) {
    for (boost::system::error_code ended; !ended;) {
        tcp::iostream peer;
        acceptor.accept(peer.socket(), ended);
        peer.expires_after(std::chrono::seconds(5));
        for (char line[4096] = ""; peer.getline(line, sizeof line) && *line != '\r';) {
        }
        PrometheusText metrics;
        metrics.add(context.getRegistrations());
        metrics.add(statistics.snapshot());
        peer << "HTTP/1.0 200 OK\r\nContent-Type: text/plain; version=0.0.4; charset=utf-8\r\n\r\n"
             << metrics.text() << std::flush;
    }
}

int main(int argc, char** argv) {
    const long port = argc == 4 ? std::strtol(argv[2], nullptr, 10) : 0;
    const long metricsPort = argc == 4 ? std::strtol(argv[3], nullptr, 10) : -1;  // 0: any
    if (port < 1 || port > 65535 || metricsPort < 0 || metricsPort > 65535) {
        std::cerr << "usage: metrics REGISTRY_HOST REGISTRY_PORT METRICS_PORT\n";
        return 2;
    }
    HttpConfig http;
    http.statistics = std::make_shared<ClientStatistics>();
    OrvServiceRegistryContext context;
    context.enableResilience(true);
    context.setHttpConfig(http);
    context.init();
    auto& client = *context.getServiceRegistryClient();
    const auto echo = client.getSharedServiceCreate({"echo", "127.0.0.1", 8080});
    echo->setUri("/echo/127.0.0.1:8080");  // another instance puts its entry at another path
    client.registerServiceAtRegistry({"registry", argv[1], static_cast<std::uint16_t>(port)}, echo,
                                     nullptr);  // does not wait: the metrics tell the outcome
    tcp::acceptor acceptor(boost::asio::system_executor(),
                           {address_v4::loopback(), static_cast<std::uint16_t>(metricsPort)});
    std::cout << "http://" << acceptor.local_endpoint() << "/metrics" << std::endl;
    std::thread server([&] { serve(acceptor, context, *http.statistics); });
    std::cin.get();
    shutdown(acceptor.native_handle(), SHUT_RDWR);
    server.join();
    return client.unregisterAllServicesFromRegistry().first ? 0 : 1;
}
