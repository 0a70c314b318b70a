// The names of statuses and error codes. Entered by any thread; no state, no lock.

#include <serviceregistryclient/OrvRegistrationResponse.h>

namespace orvx::serviceregistryclient {

OrvRegistrationResponse::OrvRegistrationResponse(Status outcome, ErrorCode reason)
    : status(outcome), errorCode(reason) {}

const char* OrvRegistrationResponse::statusString(Status status) noexcept {
    switch (status) {
        case OK:
            return "OK";
        case ERROR:
            return "ERROR";
    }
    return "";
}

const char* OrvRegistrationResponse::errorCodeString(ErrorCode errorCode) noexcept {
    switch (errorCode) {
        case NONE:
            return "NONE";
        case SERVICE_NAME_MISSING:
            return "SERVICE_NAME_MISSING";
        case DELEGATOR_NOT_INITIATED:
            return "DELEGATOR_NOT_INITIATED";
        case SERVICE_NOT_FOUND:
            return "SERVICE_NOT_FOUND";
        case SERVICE_REGISTRY_ERROR:
            return "SERVICE_REGISTRY_ERROR";
        case TIMEOUT:
            return "TIMEOUT";
        case OTHER:
            return "OTHER";
    }
    return "";
}

}  // namespace orvx::serviceregistryclient
