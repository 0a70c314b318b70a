#pragma once

#include <orvx/communication/HttpResponse.h>
#include <orvx/utility/Export.h>

#include <cstdint>
#include <memory>

namespace orvx::serviceregistryclient {

/// The result of a registry operation. A value: copies share the HTTP answer.
/// Not synchronised; reading it from several threads is safe.
struct ORVX_EXPORT OrvRegistrationResponse {
    /// Whether the operation did what it was asked for.
    enum Status : std::int32_t {
        /// It did, or there was nothing to do.
        OK = 0,
        /// It did not: the error code says why.
        ERROR = 1,
    };

    /// Why an operation failed.
    enum ErrorCode : std::int32_t {
        /// It did not fail.
        NONE = 0,
        /// The description has no name.
        SERVICE_NAME_MISSING = 1,
        /// The client is ending, or gone. SyncOrvRegistrationResponse::unregister() answers it
        /// then.
        /// An asynchronous operation answers it while the context's deinit() runs, which drops most
        /// callbacks, so that it is hardly ever seen; after deinit() no callback is called.
        DELEGATOR_NOT_INITIATED = 2,
        /// The service to withdraw has no entry at the registry (yet).
        SERVICE_NOT_FOUND = 3,
        /// The registry refused, or could not be reached and no retry is left: see httpResponse.
        SERVICE_REGISTRY_ERROR = 4,
        /// A synchronous call ended before its answer came.
        TIMEOUT = 5,
        /// A local failure: the description cannot be written as JSON.
        OTHER = 6,
    };

    /// Without an HTTP answer.
    OrvRegistrationResponse(Status status, ErrorCode errorCode);

    /// The upper-case name of a value, a static text; an empty text for any other value.
    static const char* statusString(Status status) noexcept;
    /// As statusString().
    static const char* errorCodeString(ErrorCode errorCode) noexcept;

    /// Whether it succeeded.
    Status status;
    /// Why it did not; NONE with OK.
    ErrorCode errorCode;
    /// What the network said; empty where it was not asked.
    std::shared_ptr<communication::HttpResponse> httpResponse;
};

}  // namespace orvx::serviceregistryclient
