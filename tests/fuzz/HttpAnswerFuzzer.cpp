// Any bytes as the answer of a real server over a real socket: each request ends once and in time,
// and with an answer only if the bytes are one. The fuzzer's thread sends a request and waits, the
// I/O thread delivers the outcome, and the server's thread answers. `mutex_` guards the server's
// next answer; futures pass the outcomes.

#include "AnsweringServer.h"
#include "Input.h"

#include <orvx/communication/OrvClientCommunicationContext.h>

#include <atomic>
#include <future>
#include <regex>

namespace {

using namespace orvx::communication;
using orvx::fuzz::AnsweringServer;
using orvx::fuzz::Input;
using orvx::fuzz::require;

constexpr std::size_t kMostBodyBytes = 500;
constexpr char kContent[] = "{}";

HttpConfig config() {
    HttpConfig config;
    config.requestTimeout = std::chrono::milliseconds(40);
    config.maxHeaderBytes = 500;
    config.maxBodyBytes = kMostBodyBytes;
    return config;
}

/// The client's side of HTTP, shared by all runs.
class Client {
  public:
    explicit Client(std::uint16_t port) {
        context_.setHttpConfig(config());
        context_.init();
        session_ = context_.getClientHttpFactory().createSession(
            "127.0.0.1", port, config(), context_.getHealthCheck(), context_.getClientStatistics());
    }

    HttpResponse ask(unsigned method) {
        const auto outcome = std::make_shared<std::promise<HttpResponse>>();
        const auto calls = std::make_shared<std::atomic<int>>(0);
        auto future = outcome->get_future();
        send(method, [outcome, calls](HttpResponse response) {
            require(++*calls == 1, "a request ends once");
            outcome->set_value(std::move(response));
        });
        require(future.wait_for(std::chrono::seconds(10)) == std::future_status::ready,
                "a request ends in time");
        return future.get();
    }

  private:
    void send(unsigned method, ResponseHandler handler) {
        switch (method) {
            case 0:
                return session_->sendPutRequestJson("/a", kContent, 2, std::move(handler));
            case 1:
                return session_->sendHeadRequest("/a", std::move(handler));
            default:
                return session_->sendDeleteRequest("/a", "application/json", std::move(handler));
        }
    }

    OrvClientCommunicationContext context_;
    std::shared_ptr<IClientHttpSession> session_;
};

/// An accepted answer must be in the bytes: a status line with its code, the end of the headers,
/// and, if it was received completely, the body.
void requireAnswerIn(const std::string& bytes, unsigned method, const HttpResponse& response) {
    static const std::regex statusLine("HTTP/1\\.[01] ([0-9]{3})[ \r]");
    const auto code = std::to_string(static_cast<int>(response.getStatusCode()));
    bool isThere = false;
    for (std::sregex_iterator at(bytes.begin(), bytes.end(), statusLine), end; at != end; ++at) {
        const auto position = static_cast<std::size_t>(at->position());
        isThere |= (*at)[1] == code && (position == 0 || bytes[position - 1] == '\n');
    }
    require(bytes.rfind("HTTP/1.", 0) == 0 && isThere, "the status line of an answer was sent");
    require(code.size() == 3 && code >= "200", "an answer is a final one");
    require(bytes.find("\r\n\r\n") != std::string::npos, "the headers of an answer ended");
    require(bytes.find('\0') > bytes.find("\r\n\r\n"), "no header has a zero byte");
    const std::string& body = response.getBody();
    require(body.size() <= kMostBodyBytes, "a body is bounded");
    require(method != 1 || body.empty(), "an answer to HEAD has no body");
    require(bytes.find("hunked") != std::string::npos ||
                bytes.find("HUNKED") != std::string::npos || bytes.find(body) != std::string::npos,
            "a body was sent");
}

void requireSense(const std::string& bytes, unsigned method, const HttpResponse& response) {
    switch (response.getCommunicationStatus()) {
        case CommunicationStatus::Ok:
            return requireAnswerIn(bytes, method, response);
        case CommunicationStatus::SendFailed:
        case CommunicationStatus::ReceiveFailed:
        case CommunicationStatus::TimedOut:
        case CommunicationStatus::Malformed:
        case CommunicationStatus::CutShort:
        case CommunicationStatus::TooLarge:
            require(response.getStatusCode() == HttpResponse::StatusCode::None &&
                        response.getHeaders().empty() && response.getBody().empty(),
                    "what is no answer has nothing of one");
            return;
        default:
            require(false, communicationStatusToString(response.getCommunicationStatus()));
    }
}

AnsweringServer::Ending endingOf(unsigned choice) {
    using Ending = AnsweringServer::Ending;
    return choice == 0       ? Ending::Stall
           : choice % 4 == 1 ? Ending::Reset
           : choice % 4 == 2 ? Ending::Again
                             : Ending::Close;
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    static AnsweringServer server;
    static Client client(server.port());
    Input input(bytes, size);
    const unsigned method = input.below(3);
    const auto ending = endingOf(255 - input.byte());
    const std::size_t piece = input.byte();
    const std::string answer = input.rest();
    server.answerWith({answer, piece, ending});
    const int requests = ending == AnsweringServer::Ending::Again ? 2 : 1;
    for (int i = 0; i < requests; ++i) {
        requireSense(answer, method, client.ask(method));
    }
    return 0;
}
