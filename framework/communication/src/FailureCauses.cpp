// Says why a request or a connection has failed.
// Entered by the I/O thread only; there is no lock. No exception leaves this file: a text for which
// there is no memory is empty.

#include "FailureCauses.h"

#include <new>

namespace orvx::communication {

std::string FailureCauses::of(CommunicationStatus status,
                              const std::string& detail) const noexcept {
    try {
        switch (status) {
            case CommunicationStatus::TimedOut:
                return "no answer from " + settings_.origin.authority + " in time";
            case CommunicationStatus::ResolveFailed:
                return detail.empty() ? "the host " + settings_.nextHop().host + " is not known"
                                      : detail;
            default:
                return detail;
        }
    } catch (const std::bad_alloc&) {
        return {};
    }
}

std::string FailureCauses::ofTls(CommunicationStatus status,
                                 const std::string& error) const noexcept {
    try {
        return status == CommunicationStatus::TlsFailed
                   ? "TLS with " + settings_.origin.authority + " failed: " + error
                   : "";
    } catch (const std::bad_alloc&) {
        return {};
    }
}

std::string FailureCauses::ofLookUp(std::string_view reason) const noexcept {
    try {
        return reason.empty() ? ""
                              : ("the host " + settings_.nextHop().host + " cannot be looked up: ")
                                    .append(reason);
    } catch (const std::bad_alloc&) {
        return {};
    }
}

void FailureCauses::logOnce(const std::string& cause) noexcept {
    try {
        if (!cause.empty() && cause != lastLogged_) {
            lastLogged_ = cause;
            logger_.logWarning(false) << cause;
        }
    } catch (const std::bad_alloc&) {
        // The failure is reported by the outcomes of the requests.
    }
}

}  // namespace orvx::communication
