// The names of the outcomes of a request.
// Entered by any thread; there is no state and no lock.

#include <orvx/communication/CommunicationStatus.h>

namespace orvx::communication {

const char* communicationStatusToString(CommunicationStatus status) noexcept {
    // No default: the compiler warns about a status that is missing here.
    switch (status) {
        case CommunicationStatus::Ok:
            return "OK";
        case CommunicationStatus::InvalidRequest:
            return "INVALID_REQUEST";
        case CommunicationStatus::NoSession:
            return "NO_SESSION";
        case CommunicationStatus::ResolveFailed:
            return "RESOLVE_FAILED";
        case CommunicationStatus::ConnectFailed:
            return "CONNECT_FAILED";
        case CommunicationStatus::TlsFailed:
            return "TLS_FAILED";
        case CommunicationStatus::SendFailed:
            return "SEND_FAILED";
        case CommunicationStatus::ReceiveFailed:
            return "RECEIVE_FAILED";
        case CommunicationStatus::TimedOut:
            return "TIMED_OUT";
        case CommunicationStatus::Malformed:
            return "MALFORMED";
        case CommunicationStatus::CutShort:
            return "CUT_SHORT";
        case CommunicationStatus::TooLarge:
            return "TOO_LARGE";
        case CommunicationStatus::Abandoned:
            return "ABANDONED";
        case CommunicationStatus::OutOfMemory:
            return "OUT_OF_MEMORY";
        case CommunicationStatus::Other:
            return "OTHER";
    }
    return "";
}

}  // namespace orvx::communication
