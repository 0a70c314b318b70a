#pragma once

#include "AnswerReader.h"
#include "ConnectionTable.h"
#include "HeaderLists.h"
#include "Request.h"

#include <curl/curl.h>

#include <memory>

namespace orvx::communication {

/// A result of libcurl's that ends an attempt to start a transfer.
struct CurlFailure {
    CURLcode code;
};

/// What the transfers of an engine work with.
struct TransferContext {
    CURLM* multi;
    ConnectionTable connections;
};

/// A place for one request after another of the same endpoint. For the I/O thread only.
class Transfer {
  public:
    /// Must outlive it.
    explicit Transfer(TransferContext& context) : context_(context) {}
    /// Ends what is under way.
    ~Transfer();
    Transfer(const Transfer&) = delete;
    Transfer& operator=(const Transfer&) = delete;

    static Transfer& of(CURL* easy);

    /// Takes the request and begins. Throws CurlFailure, and has not taken it then.
    void start(std::unique_ptr<Request>& request, HeaderLists::List headers, Clock::time_point now);
    /// Its request with the outcome, or null when it has to go on, on another connection.
    std::unique_ptr<Request> finish(CURLcode code);
    /// Its request as it is.
    std::unique_ptr<Request> giveUp();

    /// Null when there is none under way.
    const Request* request() const { return request_.get(); }

  private:
    void makeHandle();
    void setUp(const EndpointSettings& settings);
    void setUpWay(const HttpConfig& config);
    void setUpTls(const TlsConfig& tls);
    void setTarget(const Request& request);
    void setMethod(const Request& request);
    CommunicationStatus outcome(CURLcode code) const;
    CommunicationStatus outcomeOfBrokenReceive() const;
    bool hasConnection() const;

    template <typename Value>
    void set(CURLoption option, Value value) {
        const CURLcode code = curl_easy_setopt(easy_.get(), option, value);
        if (code != CURLE_OK) {
            throw CurlFailure{code};
        }
    }

    static std::size_t onHeader(char* line, std::size_t, std::size_t size, void* self) noexcept;
    static std::size_t onBody(char* bytes, std::size_t, std::size_t size, void* self) noexcept;
    static int onConnected(void* self, char*, char*, int, int localPort) noexcept;

    struct EasyDeleter {
        void operator()(CURL* easy) const { curl_easy_cleanup(easy); }
    };

    TransferContext& context_;
    // Before the handle, which refers to them.
    char error_[CURL_ERROR_SIZE] = "";
    HeaderLists::List headers_;
    HeaderLists::List proxyHeaders_;
    std::unique_ptr<Request> request_;
    std::unique_ptr<CURL, EasyDeleter> easy_;
    AnswerReader answer_;
    long newConnections_ = 0;  // Those made for the request when the last one stood.
    bool isOnStaleConnection_ = false;
};

}  // namespace orvx::communication
