#pragma once

#include "SimulatedThread.h"

#include <orvx/communication/ClientStatistics.h>
#include <orvx/communication/HealthCheck.h>
#include <orvx/communication/IClientHttpSession.h>

namespace orvx::simulation {

class Session;

struct Request::Data {
    communication::ClientStatistics::Method kind;
    std::string path;
    std::string contentType;
    std::string accept;
    std::string body;
    std::string method{};
    std::string host{};
    std::uint16_t port = 0;
    std::uint64_t number = 0;
    std::chrono::milliseconds sentAt{0};
    /// Both are set while the request is outstanding. The handler is shared, so that it cannot be
    /// lost if memory runs out on its way to the I/O thread.
    std::shared_ptr<communication::ResponseHandler> handler{};
    std::shared_ptr<Session> session{};
};

/// The I/O thread of one communication context, and the outstanding requests of its sessions.
class Network : public SimulatedThread {
  public:
    Network() : SimulatedThread(&WorldState::ioThreads) {}

    /// Stops the thread and drops the outstanding requests.
    void close();

    Requests outstanding;
};

/// Records its requests, for the test to take and answer. With a refusal, each request is answered
/// with that refusal instead.
class Session : public communication::IClientHttpSession,
                public std::enable_shared_from_this<Session> {
  public:
    Session(std::shared_ptr<Network> network, std::string host, std::uint16_t port,
            std::shared_ptr<communication::HealthCheck> healthCheck,
            std::shared_ptr<communication::ClientStatistics> statistics,
            communication::CommunicationStatus refusal = communication::CommunicationStatus::Ok);

    void sendPutRequest(std::string path, std::string contentType, std::string accept,
                        const char* content, std::uint64_t length,
                        communication::ResponseHandler handler) override;
    void sendHeadRequest(std::string uri, communication::ResponseHandler handler) override;
    void sendDeleteRequest(std::string uri, std::string contentType,
                           communication::ResponseHandler handler) override;
    void abandon() override;

    /// For outstanding requests of this session.
    void answer(Request::Data& request, const communication::HttpResponse& response);
    void drop(Request::Data& request);

  private:
    void send(Request::Data request, communication::ResponseHandler handler);
    void submit(Request::Data request);
    /// The task that delivers the outcome of a request on the I/O thread.
    SimulatedThread::Task outcome(const Request::Data& request,
                                  communication::HttpResponse response);
    void record(communication::ClientStatistics::Method method,
                const communication::HttpResponse& response,
                std::chrono::milliseconds latency) const;

    const std::shared_ptr<Network> network_;
    const std::string host_;
    const std::uint16_t port_;
    const std::shared_ptr<communication::HealthCheck> healthCheck_;
    const std::shared_ptr<communication::ClientStatistics> statistics_;
    const communication::CommunicationStatus refusal_;
    Requests heads_;
};

}  // namespace orvx::simulation
