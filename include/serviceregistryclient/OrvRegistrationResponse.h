#pragma once

#include <orvx/communication/HttpResponse.h>
#include <orvx/utility/Export.h>

#include <cstdint>
#include <memory>

namespace orvx::serviceregistryclient {

/// The result of a registry operation. A value: copies share the HTTP answer.
/// Not synchronised; reading it from several threads is safe.
struct ORVX_EXPORT OrvRegistrationResponse {
    /// The overall outcome.
    enum Status : std::int32_t {
        /// The operation succeeded, or there was nothing to do.
        OK = 0,
        /// The operation failed; the error code is the reason.
        ERROR = 1,
    };

    /// The reason of a failure.
    enum ErrorCode : std::int32_t {
        /// No failure.
        NONE = 0,
        /// The description has no name.
        SERVICE_NAME_MISSING = 1,
        /// The client is ending, or gone. SyncOrvRegistrationResponse::unregister() reports it
        /// after the client's end. Without resilience an asynchronous operation reports it only if
        /// it is called while deinit() is running, and its callback runs before deinit() returns.
        /// With resilience every callback that waits when the client is stopped gets it.
        DELEGATOR_NOT_INITIATED = 2,
        /// Without resilience: a withdrawal was requested while a registration was pending. There
        /// was no entry to delete.
        SERVICE_NOT_FOUND = 3,
        /// The registry refused, or could not be reached and no retry is left: see httpResponse.
        SERVICE_REGISTRY_ERROR = 4,
        /// A synchronous call ended before its answer came. With resilience also: the unregister
        /// time-out of an asynchronous withdrawal passed.
        TIMEOUT = 5,
        /// A local failure: the description cannot be written as JSON. With resilience also: the
        /// registration was withdrawn before its answer, or a blocking call was made from a
        /// callback.
        OTHER = 6,
    };

    /// A response without an HTTP answer.
    OrvRegistrationResponse(Status status, ErrorCode errorCode);

    /// The upper-case name of a value, a static text; empty for any other value.
    static const char* statusString(Status status) noexcept;
    /// The upper-case name of a value, a static text; empty for any other value.
    static const char* errorCodeString(ErrorCode errorCode) noexcept;

    /// The overall outcome.
    Status status;
    /// The reason of a failure; NONE with OK.
    ErrorCode errorCode;
    /// The registry's answer, or the network failure; empty if no request was sent.
    std::shared_ptr<communication::HttpResponse> httpResponse;
};

}  // namespace orvx::serviceregistryclient
