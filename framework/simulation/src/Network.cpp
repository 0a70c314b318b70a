// Requests from their submission to their outcome. An outcome is a task of the network's I/O
// thread.
// Entered by the test's thread only; there is no lock. Handlers run and are destroyed while the
// state is consistent: they may send, abandon, stop the network and destroy its owner.

#include "Network.h"

namespace orvx::simulation {

using communication::CommunicationStatus;
using communication::HttpResponse;
using communication::ResponseHandler;
using Method = communication::ClientStatistics::Method;

void Network::close() {
    const auto self = shared_from_this();
    stop();
    while (!outstanding.empty()) {
        const auto request = outstanding.begin()->second;
        const auto session = request->session;
        session->drop(*request);
    }
}

Session::Session(std::shared_ptr<Network> network, std::string host, std::uint16_t port,
                 std::shared_ptr<communication::HealthCheck> healthCheck,
                 std::shared_ptr<communication::ClientStatistics> statistics,
                 CommunicationStatus refusal)
    : network_(std::move(network)),
      host_(std::move(host)),
      port_(port),
      healthCheck_(std::move(healthCheck)),
      statistics_(std::move(statistics)),
      refusal_(refusal) {}

void Session::sendPutRequest(std::string path, std::string contentType, std::string accept,
                             const char* content, std::uint64_t length, ResponseHandler handler) {
    send({Method::Put, std::move(path), std::move(contentType), std::move(accept),
          std::string(content, length)},
         std::move(handler));
}

void Session::sendHeadRequest(std::string uri, ResponseHandler handler) {
    send({Method::Head, std::move(uri), "", "", ""}, std::move(handler));
}

void Session::sendDeleteRequest(std::string uri, std::string contentType, ResponseHandler handler) {
    send({Method::Delete, std::move(uri), std::move(contentType), "", ""}, std::move(handler));
}

void Session::send(Request::Data request, ResponseHandler handler) {
    if (!network_->isRunning()) {
        return;
    }
    if (request.path.empty() || request.path.front() != '/') {
        request.path.insert(0, 1, '/');
    }
    request.method = methodToString(request.kind);
    request.host = host_;
    request.port = port_;
    request.number = ++network_->world().lastNumber;
    request.sentAt = network_->world().now;
    request.handler = std::make_shared<ResponseHandler>(std::move(handler));
    if (refusal_ == CommunicationStatus::Ok) {
        submit(std::move(request));
    } else {
        network_->add(std::chrono::milliseconds(0), outcome(request, HttpResponse(refusal_)));
    }
}

void Session::submit(Request::Data request) {
    request.session = shared_from_this();
    const bool isHead = request.kind == Method::Head;
    // All statements that can fail come before the first merge.
    Requests sent{{request.number, std::make_shared<Request::Data>(std::move(request))}};
    Requests toTake = sent;
    Requests heads = isHead ? sent : Requests();
    network_->outstanding.merge(sent);
    network_->world().requestsToTake.merge(toTake);
    heads_.merge(heads);
    ++network_->world().outstandingRequests;
}

void Session::abandon() {
    if (!network_->isRunning() || heads_.empty()) {
        return;
    }
    const auto head = heads_.begin()->second;
    network_->add(std::chrono::milliseconds(0),
                  outcome(*head, HttpResponse(CommunicationStatus::Abandoned)));
    drop(*head);
}

void Session::answer(Request::Data& request, const HttpResponse& response) {
    auto task = outcome(request, response);
    drop(request);
    network_->run(std::move(task));
}

void Session::drop(Request::Data& request) {
    network_->outstanding.erase(request.number);
    heads_.erase(request.number);
    --network_->world().outstandingRequests;
    request.session.reset();
    request.handler.reset();
}

SimulatedThread::Task Session::outcome(const Request::Data& request, HttpResponse response) {
    return [self = shared_from_this(), method = request.kind, sentAt = request.sentAt,
            handler = request.handler, response = std::move(response)] {
        self->record(method, response, self->network_->world().now - sentAt);
        (*handler)(response);
    };
}

void Session::record(Method method, const HttpResponse& response,
                     std::chrono::milliseconds latency) const {
    const CommunicationStatus status = response.getCommunicationStatus();
    statistics_->record({method, status, static_cast<int>(response.getStatusCode()), latency});
    healthCheck_->record(status);
}

}  // namespace orvx::simulation
