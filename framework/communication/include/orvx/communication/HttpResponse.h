#pragma once

#include <orvx/communication/CommunicationStatus.h>
#include <orvx/communication/HttpMessage.h>

namespace orvx::communication {

/// The outcome of a request: an HTTP answer, or a failure.
///
/// A value: copies are independent. Not synchronised; reading it from several threads is safe.
class ORVX_EXPORT HttpResponse : public HttpMessage {
  public:
    /// HTTP status codes. Any number may occur, even without a name here.
    enum class StatusCode : std::int32_t {
        None = 0,
        Ok = 200,
        Created = 201,
        Accepted = 202,
        NoContent = 204,
        BadRequest = 400,
        Unauthorized = 401,
        Forbidden = 403,
        NotFound = 404,
        RequestTimeout = 408,
        Conflict = 409,
        TooManyRequests = 429,
        InternalServerError = 500,
        NotImplemented = 501,
        BadGateway = 502,
        ServiceUnavailable = 503,
        GatewayTimeout = 504,
    };

    /// A failure: status code None, no headers, no body. `status` must not be Ok.
    explicit HttpResponse(CommunicationStatus status);
    /// A failure with its cause as a text.
    HttpResponse(CommunicationStatus status, std::string cause);
    /// An answer. `headerLines` are its header lines as received, without the status line, each
    /// ending with CR LF or LF.
    HttpResponse(StatusCode statusCode, std::string headerLines, std::string body);
    ~HttpResponse() override;
    HttpResponse(const HttpResponse&) = default;
    HttpResponse(HttpResponse&&) = default;
    HttpResponse& operator=(const HttpResponse&) = default;
    HttpResponse& operator=(HttpResponse&&) = default;

    /// Ok for an answer, whatever its status code; otherwise the kind of failure.
    CommunicationStatus getCommunicationStatus() const { return communicationStatus_; }
    /// The cause of a failure for human readers, such as "connection refused by 10.0.0.5:8500".
    /// Empty for an answer, and if the status says all that is known.
    std::string getCause() const;
    /// The status code of the answer; None without an answer.
    StatusCode getStatusCode() const { return statusCode_; }
    /// The Location header: absent, or a text, which may be empty.
    std::optional<std::string> getLocation() const { return getHeader("Location"); }

    std::vector<Header> getHeaders() const override;
    std::optional<std::string> getHeader(const std::string& name) const override;
    bool hasHeader(const std::string& name) const override;
    std::optional<std::string> getContentType() const override;
    std::uint64_t getContentLength() const override;
    const std::string& getBody() const override;

  private:
    CommunicationStatus communicationStatus_;
    StatusCode statusCode_;
    /// Empty without an answer.
    std::string headerLines_;
    /// The body, or the cause if there is no answer.
    std::string body_;
};

}  // namespace orvx::communication
