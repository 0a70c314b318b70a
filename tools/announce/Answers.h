#pragma once

#include <serviceregistryclient/OrvRegistrationResponse.h>

#include <orvx/communication/ClientStatistics.h>

#include <nlohmann/json_fwd.hpp>

#include <string>

namespace orvx::announce {

/// What the registry said, in a few words: "HTTP 400: {...}", or "CONNECT_FAILED", or why it was
/// not asked.
std::string toText(const serviceregistryclient::OrvRegistrationResponse& outcome);

/// The figures of one service: attempts, checks, the last answer and the last confirmation.
/// `announced`: how many attempts were successful.
nlohmann::json toJson(const communication::ClientStatistics::Snapshot& counted,
                      std::uint64_t announced);

/// Whether no request has ever got so far as to be sent, although some have ended.
bool nothingWasSent(const communication::ClientStatistics::Snapshot& counted);

}  // namespace orvx::announce
