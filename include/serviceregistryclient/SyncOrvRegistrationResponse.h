#pragma once

#include <serviceregistryclient/OrvRegistrationResponse.h>

#include <functional>

namespace orvx::serviceregistryclient {

/// The result of a synchronous registration, and a function that withdraws the service. A value.
struct SyncOrvRegistrationResponse {
    /// ERROR / OTHER until it is set.
    OrvRegistrationResponse response{OrvRegistrationResponse::ERROR,
                                     OrvRegistrationResponse::OTHER};
    /// Withdraws the service and blocks until the answer, or until the unregister time-out, which
    /// returns ERROR / TIMEOUT. When the client is gone it returns ERROR / DELEGATOR_NOT_INITIATED
    /// at once; a call that waits when the client ends continues to wait until its time-out. Empty
    /// in a default-constructed record and for a registration without an answer; calling it then
    /// throws std::bad_function_call. Must not be called from a callback or listener.
    std::function<OrvRegistrationResponse()> unregister;
};

}  // namespace orvx::serviceregistryclient
