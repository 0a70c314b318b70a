// One request through libcurl: the options, the callbacks, and what a result means.
// Entered by the I/O thread only, directly or through libcurl's callbacks; there is no lock. No
// exception passes through libcurl's frames.

#include "Transfer.h"

#include "CurlErrors.h"

#include <sys/socket.h>

#include <algorithm>
#include <exception>
#include <limits>
#include <string_view>

namespace orvx::communication {

namespace {

/// As libcurl takes durations; what is longer is as good as never (24 days).
long milliseconds(std::chrono::milliseconds duration) {
    constexpr std::chrono::milliseconds kLongest(std::numeric_limits<int>::max());
    return static_cast<long>(std::clamp(duration, std::chrono::milliseconds(1), kLongest).count());
}

curl_off_t offset(std::uint64_t value) {
    constexpr auto kMost = static_cast<std::uint64_t>(std::numeric_limits<curl_off_t>::max());
    return static_cast<curl_off_t>(std::min(value, kMost));
}

// libcurl's own sockets stay open in the programs that the process starts, and with them the
// connections, whoever ends them here.
curl_socket_t openSocket(void*, curlsocktype, curl_sockaddr* address) noexcept {
    return socket(address->family, address->socktype | SOCK_CLOEXEC, address->protocol);
}

const char* orNull(const std::string& text) {
    return text.empty() ? nullptr : text.c_str();
}

}  // namespace

Transfer::~Transfer() {
    giveUp();
}

Transfer& Transfer::of(CURL* easy) {
    char* self = nullptr;
    curl_easy_getinfo(easy, CURLINFO_PRIVATE, &self);
    return *reinterpret_cast<Transfer*>(self);
}

// One for each request: up to 8.0 libcurl appends a folded line that begins the headers of an
// answer to the last header of the handle's answer before, which it has freed. Connections are not
// the handle's.
void Transfer::makeHandle() {
    easy_.reset(curl_easy_init());
    if (!easy_) {
        throw CurlFailure{CURLE_OUT_OF_MEMORY};
    }
}

void Transfer::setUp(const EndpointSettings& settings) {
    set(CURLOPT_PRIVATE, this);
    set(CURLOPT_URL, settings.url.c_str());
    set(CURLOPT_PROTOCOLS_STR, settings.config.tls.enabled ? "https" : "http");
    set(CURLOPT_HTTP_VERSION, long{CURL_HTTP_VERSION_1_1});
    set(CURLOPT_NOSIGNAL, 1L);
    set(CURLOPT_OPENSOCKETFUNCTION, &openSocket);
    // Without it, taking away a handle waits for the resolver's answer.
    set(CURLOPT_QUICK_EXIT, 1L);
    set(CURLOPT_CONNECTTIMEOUT_MS, milliseconds(settings.config.connectTimeout));
    set(CURLOPT_USERAGENT, orNull(settings.config.userAgent));
    set(CURLOPT_HEADERFUNCTION, &Transfer::onHeader);
    set(CURLOPT_HEADERDATA, this);
    set(CURLOPT_WRITEFUNCTION, &Transfer::onBody);
    set(CURLOPT_WRITEDATA, this);
    set(CURLOPT_PREREQFUNCTION, &Transfer::onConnected);
    set(CURLOPT_PREREQDATA, this);
    set(CURLOPT_ERRORBUFFER, error_);
    setUpWay(settings.config);
    if (settings.config.tls.enabled) {
        setUpTls(settings.config.tls);
    }
}

// Nothing of it is left to the environment.
void Transfer::setUpWay(const HttpConfig& config) {
    const bool hasProxy = !config.proxy.empty();
    set(CURLOPT_PROXY, config.proxy.c_str());
    set(CURLOPT_NOPROXY, hasProxy ? "" : "*");
    if (hasProxy) {
        proxyHeaders_ = HeaderLists::forProxy(config);
        set(CURLOPT_HEADEROPT, long{CURLHEADER_SEPARATE});
        set(CURLOPT_PROXYHEADER, proxyHeaders_.get());
        // The answer to a CONNECT is not the one that is waited for.
        set(CURLOPT_SUPPRESS_CONNECT_HEADERS, 1L);
    }
    if (!config.unixSocketPath.empty()) {
        set(CURLOPT_UNIX_SOCKET_PATH, config.unixSocketPath.c_str());
        // Kept ones cannot be told apart when a request is about to be sent over one of them.
        set(CURLOPT_FORBID_REUSE, 1L);
    }
}

void Transfer::setUpTls(const TlsConfig& tls) {
    const bool is13 = tls.lowestVersion == TlsConfig::Version::Tls13;
    set(CURLOPT_SSLVERSION, long{is13 ? CURL_SSLVERSION_TLSv1_3 : CURL_SSLVERSION_TLSv1_2});
    if (!tls.authorityFile.empty() || !tls.authorityFolder.empty()) {
        // Both, or else the system's authorities would be trusted besides.
        set(CURLOPT_CAINFO, orNull(tls.authorityFile));
        set(CURLOPT_CAPATH, orNull(tls.authorityFolder));
    }
    // Else authorities that were replaced on disk are trusted for another day.
    set(CURLOPT_CA_CACHE_TIMEOUT, 0L);
    set(CURLOPT_SSLCERT, orNull(tls.clientCertificateFile));
    set(CURLOPT_SSLKEY, orNull(tls.clientKeyFile));
    // Else the terminal is asked for the password of a key that has one.
    set(CURLOPT_KEYPASSWD, "");
    if (tls.disableServerVerification) {
        set(CURLOPT_SSL_VERIFYPEER, 0L);
        set(CURLOPT_SSL_VERIFYHOST, 0L);
    }
}

// A proxy that reads the request wants to know where it goes.
void Transfer::setTarget(const Request& request) {
    const HttpConfig& config = request.settings->config;
    const bool isForProxy = !config.proxy.empty() && !config.tls.enabled;
    const std::string absolute =
        isForProxy ? request.settings->url + request.target.substr(1) : std::string();
    set(CURLOPT_REQUEST_TARGET, (isForProxy ? absolute : request.target).c_str());
}

void Transfer::setMethod(const Request& request) {
    const bool isHead = request.kind == Request::Kind::Head;
    set(CURLOPT_NOBODY, isHead ? 1L : 0L);
    set(CURLOPT_CUSTOMREQUEST, request.kind == Request::Kind::Put      ? "PUT"
                               : request.kind == Request::Kind::Delete ? "DELETE"
                                                                       : nullptr);
    // A HEAD's Content-Length is that of a body which does not come.
    const std::uint64_t cap = isHead ? 0 : request.settings->config.maxBodyBytes;
    set(CURLOPT_MAXFILESIZE_LARGE, offset(cap));
    if (request.kind == Request::Kind::Put) {
        set(CURLOPT_POSTFIELDSIZE_LARGE, offset(request.length));
        set(CURLOPT_POSTFIELDS, request.length == 0 ? "" : request.content);
    }
}

void Transfer::start(std::unique_ptr<Request>& request, HeaderLists::List headers,
                     Clock::time_point now) {
    using std::chrono::ceil;
    makeHandle();
    setUp(*request->settings);
    setMethod(*request);
    setTarget(*request);
    set(CURLOPT_HTTPHEADER, headers.get());
    headers_ = std::move(headers);
    set(CURLOPT_TIMEOUT_MS, milliseconds(ceil<std::chrono::milliseconds>(request->deadline - now)));
    answer_.begin(*request);
    newConnections_ = 0;
    isOnStaleConnection_ = false;
    if (curl_multi_add_handle(context_.multi, easy_.get()) != CURLM_OK) {
        throw CurlFailure{CURLE_OUT_OF_MEMORY};
    }
    request_ = std::move(request);
}

std::unique_ptr<Request> Transfer::finish(CURLcode code) {
    request_->status = outcome(code);
    if (newConnections_ > 0 && request_->status == CommunicationStatus::Ok) {
        context_.connections.remember(easy_.get());
    }
    curl_multi_remove_handle(context_.multi, easy_.get());
    if (std::exchange(isOnStaleConnection_, false)) {
        if (curl_multi_add_handle(context_.multi, easy_.get()) == CURLM_OK) {
            return nullptr;
        }
        request_->status = CommunicationStatus::OutOfMemory;
    }
    return std::move(request_);
}

std::unique_ptr<Request> Transfer::giveUp() {
    if (request_) {
        curl_multi_remove_handle(context_.multi, easy_.get());
    }
    return std::move(request_);
}

CommunicationStatus Transfer::outcome(CURLcode code) const {
    if (answer_.refusal()) {
        return *answer_.refusal();
    }
    switch (code) {
        case CURLE_OK:
            return answer_.hasAllHeaders() ? CommunicationStatus::Ok
                                           : CommunicationStatus::CutShort;
        case CURLE_RECV_ERROR:
        case CURLE_GOT_NOTHING:
            if (!hasConnection()) {
                return CommunicationStatus::ConnectFailed;  // The proxy said no.
            }
            return answer_.hasBegun() ? outcomeOfBrokenReceive() : statusOf(code);
        case CURLE_OUT_OF_MEMORY: {
            // libcurl's word for a header line of more than 100 KiB, too.
            long requestBytes = 0;
            curl_easy_getinfo(easy_.get(), CURLINFO_REQUEST_SIZE, &requestBytes);
            const bool isReceivingHeaders =
                requestBytes > 0 && hasConnection() && !answer_.hasAllHeaders();
            return isReceivingHeaders ? CommunicationStatus::TooLarge : statusOf(code);
        }
        case CURLE_BAD_FUNCTION_ARGUMENT:
            // libcurl's word for a header line with a carriage return inside its name, too.
            return answer_.hasBegun() ? CommunicationStatus::Malformed : statusOf(code);
        default:
            return statusOf(code);
    }
}

// libcurl counts one when it begins to ask the proxy and to speak TLS, and may do so again when a
// kept one has ended.
bool Transfer::hasConnection() const {
    long begun = 0;
    curl_easy_getinfo(easy_.get(), CURLINFO_NUM_CONNECTS, &begun);
    return begun == newConnections_;
}

// libcurl has one result for a connection that breaks and for chunks that make no sense: only its
// words tell them apart.
CommunicationStatus Transfer::outcomeOfBrokenReceive() const {
    const bool areChunksBad = std::string_view(error_).find("chunk") != std::string_view::npos;
    return areChunksBad ? CommunicationStatus::Malformed : CommunicationStatus::CutShort;
}

std::size_t Transfer::onHeader(char* line, std::size_t, std::size_t size, void* self) noexcept {
    AnswerReader& answer = static_cast<Transfer*>(self)->answer_;
    try {
        return answer.takeHeaderLine({line, size}) ? size : 0;
    } catch (const std::exception&) {
        answer.refuse(CommunicationStatus::OutOfMemory);
        return 0;
    }
}

std::size_t Transfer::onBody(char* bytes, std::size_t, std::size_t size, void* self) noexcept {
    AnswerReader& answer = static_cast<Transfer*>(self)->answer_;
    try {
        return answer.takeBody({bytes, size}) ? size : 0;
    } catch (const std::exception&) {
        answer.refuse(CommunicationStatus::OutOfMemory);
        return 0;
    }
}

int Transfer::onConnected(void* self, char*, char*, int, int localPort) noexcept {
    Transfer& transfer = *static_cast<Transfer*>(self);
    ++transfer.request_->attempts;
    curl_easy_getinfo(transfer.easy_.get(), CURLINFO_NUM_CONNECTS, &transfer.newConnections_);
    transfer.isOnStaleConnection_ =
        transfer.newConnections_ == 0 && transfer.context_.connections.isStale(localPort);
    return transfer.isOnStaleConnection_ ? CURL_PREREQFUNC_ABORT : CURL_PREREQFUNC_OK;
}

}  // namespace orvx::communication
