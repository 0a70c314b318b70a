// The one table from libcurl's results to ours.
// A pure function, entered by any thread; there is no lock.

#include "CurlErrors.h"

namespace orvx::communication {

CommunicationStatus statusOf(CURLcode code) noexcept {
    switch (code) {
        case CURLE_OK:
            return CommunicationStatus::Ok;
        case CURLE_URL_MALFORMAT:
            return CommunicationStatus::InvalidRequest;
        case CURLE_COULDNT_RESOLVE_HOST:
        case CURLE_COULDNT_RESOLVE_PROXY:
            return CommunicationStatus::ResolveFailed;
        case CURLE_COULDNT_CONNECT:
            return CommunicationStatus::ConnectFailed;
        case CURLE_SSL_CONNECT_ERROR:
        case CURLE_SSL_CERTPROBLEM:
        case CURLE_SSL_CIPHER:
        case CURLE_PEER_FAILED_VERIFICATION:
        case CURLE_SSL_CACERT_BADFILE:
        case CURLE_SSL_CLIENTCERT:
            return CommunicationStatus::TlsFailed;
        case CURLE_SEND_ERROR:
            return CommunicationStatus::SendFailed;
        case CURLE_RECV_ERROR:
        case CURLE_GOT_NOTHING:
            return CommunicationStatus::ReceiveFailed;
        case CURLE_OPERATION_TIMEDOUT:
            return CommunicationStatus::TimedOut;
        case CURLE_UNSUPPORTED_PROTOCOL:  // What libcurl calls an answer without a status line.
        case CURLE_WEIRD_SERVER_REPLY:
        case CURLE_BAD_CONTENT_ENCODING:
            return CommunicationStatus::Malformed;
        case CURLE_PARTIAL_FILE:
            return CommunicationStatus::CutShort;
        case CURLE_FILESIZE_EXCEEDED:
            return CommunicationStatus::TooLarge;
        case CURLE_OUT_OF_MEMORY:
            return CommunicationStatus::OutOfMemory;
        default:
            return CommunicationStatus::Other;
    }
}

}  // namespace orvx::communication
