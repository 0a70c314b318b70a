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
    /// at once. A call that waits when the client ends continues to wait until its time-out without
    /// resilience, and returns ERROR / DELEGATOR_NOT_INITIATED with resilience. Empty in a
    /// default-constructed record and, with resilience, when the registration was refused at once
    /// (from a callback or listener, or while the client is stopped); calling it then throws
    /// std::bad_function_call. Must not be called from a callback or listener.
    std::function<OrvRegistrationResponse()> unregister;
};

}  // namespace orvx::serviceregistryclient
