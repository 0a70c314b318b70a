// Any bytes as the answer of a proxy to CONNECT: the request ends once, within the connect
// time-out, and never with an answer, because there is no server. The fuzzer's thread sends a
// request and waits, the I/O thread delivers the outcome, and the server's thread answers; a future
// passes the outcome.

#include "AnsweringServer.h"
#include "Input.h"

#include <orvx/communication/OrvClientCommunicationContext.h>

#include <future>

namespace {

using namespace orvx::communication;
using orvx::fuzz::AnsweringServer;
using orvx::fuzz::Input;
using orvx::fuzz::require;

HttpConfig config(std::uint16_t port) {
    HttpConfig config;
    config.connectTimeout = std::chrono::milliseconds(40);
    config.proxy = "http://127.0.0.1:" + std::to_string(port);
    config.tls.enabled = true;
    config.tls.disableServerVerification = true;
    return config;
}

/// The client's side of HTTP, shared by all runs.
class Client {
  public:
    explicit Client(std::uint16_t port) {
        context_.init();
        session_ = context_.getClientHttpFactory().createSession(
            "registry.invalid", 443, config(port), context_.getHealthCheck(),
            context_.getClientStatistics());
    }

    CommunicationStatus ask() {
        const auto outcome = std::make_shared<std::promise<CommunicationStatus>>();
        auto future = outcome->get_future();
        session_->sendHeadRequest("/", [outcome](const HttpResponse& response) {
            outcome->set_value(response.getCommunicationStatus());
        });
        require(future.wait_for(std::chrono::seconds(10)) == std::future_status::ready,
                "a request ends in time");
        return future.get();
    }

  private:
    OrvClientCommunicationContext context_;
    std::shared_ptr<IClientHttpSession> session_;
};

/// There is a tunnel only after a 2xx.
bool mayBeATunnel(const std::string& bytes) {
    return bytes.find("HTTP/1.") != std::string::npos &&
           bytes.find("\r\n\r\n") != std::string::npos && bytes.find(" 2") != std::string::npos;
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    static AnsweringServer server;
    static Client client(server.port());
    Input input(bytes, size);
    const bool stalls = input.below(8) == 7;
    const std::size_t piece = input.byte();
    const std::string answer = input.rest();
    server.answerWith(
        {answer, piece, stalls ? AnsweringServer::Ending::Stall : AnsweringServer::Ending::Close});
    switch (client.ask()) {
        case CommunicationStatus::ConnectFailed:
        case CommunicationStatus::TimedOut:
            break;
        case CommunicationStatus::TlsFailed:
            require(mayBeATunnel(answer), "TLS is spoken through a tunnel only");
            break;
        default:
            require(false, "a proxy's words are no answer");
    }
    return 0;
}
