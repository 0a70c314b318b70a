#pragma once

#include <serviceregistryclient/OrvRegistrationResponse.h>

#include <functional>

namespace orvx::serviceregistryclient {

/// The result of a synchronous registration, and the way to undo it. A value.
struct SyncOrvRegistrationResponse {
    /// ERROR / OTHER until it is set.
    OrvRegistrationResponse response{OrvRegistrationResponse::ERROR,
                                     OrvRegistrationResponse::OTHER};
    /// Withdraws the service and blocks until the answer or the unregister time-out, which gives
    /// ERROR / TIMEOUT. When the client is gone it answers ERROR / DELEGATOR_NOT_INITIATED at once;
    /// a call that waits when the client ends waits until its time-out. Empty in a default-built
    /// record and for a registration that did not answer; calling it then throws
    /// std::bad_function_call. Not to be called from a callback or listener.
    std::function<OrvRegistrationResponse()> unregister;
};

}  // namespace orvx::serviceregistryclient
