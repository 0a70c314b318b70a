#pragma once

#include "Request.h"
#include "RequestInbox.h"

#include <chrono>
#include <memory>
#include <string>

namespace orvx::communication {

/// Turns calls into requests and adds them to the inbox.
class HttpSession : public IClientHttpSession {
  public:
    /// Every request is answered with `refusal`, unless it is Ok.
    HttpSession(std::shared_ptr<RequestInbox> inbox,
                std::shared_ptr<const EndpointSettings> settings,
                CommunicationStatus refusal = CommunicationStatus::Ok);
    ~HttpSession() override;

    void sendPutRequest(std::string path, std::string contentType, std::string accept,
                        const char* content, std::uint64_t length,
                        ResponseHandler handler) override;
    void sendHeadRequest(std::string uri, ResponseHandler handler) override;
    void sendDeleteRequest(std::string uri, std::string contentType,
                           ResponseHandler handler) override;
    void abandon() override;
    void sendHeadRequestWithin(std::chrono::milliseconds timeout, std::string uri,
                               ResponseHandler handler) override;

  private:
    std::unique_ptr<Request> make(Request::Kind kind) const;
    void send(std::unique_ptr<Request> request, std::string path, ResponseHandler handler,
              std::chrono::milliseconds timeout = std::chrono::milliseconds::max());

    const std::shared_ptr<RequestInbox> inbox_;
    const std::shared_ptr<const EndpointSettings> settings_;
    const CommunicationStatus refusal_;
};

}  // namespace orvx::communication
