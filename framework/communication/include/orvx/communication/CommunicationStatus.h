#pragma once

#include <orvx/utility/Export.h>

#include <cstdint>

namespace orvx::communication {

/// The outcome of a request at the network level.
enum class CommunicationStatus : std::int32_t {
    Ok = 0,              ///< A whole HTTP answer was received, whatever its status code.
    InvalidRequest = 1,  ///< The request cannot be sent as it stands; nothing was sent.
    NoSession = 2,       ///< There is no session to send it through; nothing was sent.
    ResolveFailed = 3,   ///< The host's name has no address.
    ConnectFailed = 4,   ///< No connection: refused, unreachable, or no descriptor left.
    TlsFailed = 5,       ///< The TLS connection could not be made or was broken.
    SendFailed = 6,      ///< The connection broke while the request was being sent.
    ReceiveFailed = 7,   ///< The connection broke before the answer.
    TimedOut = 8,        ///< The connect time-out or the request time-out passed.
    Malformed = 9,       ///< The server's answer is not valid HTTP.
    CutShort = 10,       ///< The answer ended before its headers or its body did.
    TooLarge = 11,       ///< The answer's headers or body exceeded their limit.
    Abandoned = 12,      ///< The sender gave the request up.
    OutOfMemory = 13,    ///< Memory ran out.
    Other = 14,          ///< None of the above.
};

/// A fixed name such as "TIMED_OUT"; an empty text for any other value.
ORVX_EXPORT const char* communicationStatusToString(CommunicationStatus status) noexcept;

}  // namespace orvx::communication
