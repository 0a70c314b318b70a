#pragma once

#include <serviceregistryclient/OrvRegistrationResponse.h>
#include <serviceregistryclient/RegistrationStatus.h>

#include <orvx/communication/ClientStatistics.h>

#include <nlohmann/json_fwd.hpp>

#include <string>

namespace orvx::announce {

/// What the registry said, in a few words: "HTTP 400: {...}", or "CONNECT_FAILED", or why it was
/// not asked.
std::string toText(const serviceregistryclient::OrvRegistrationResponse& outcome);

nlohmann::json toJson(const serviceregistryclient::RegistrationStatus::Failure& failure);

/// Whether the registry gave an answer that ends a first registration.
bool isRefusal(const serviceregistryclient::RegistrationStatus::Failure& failure);

/// Whether no request has ever got so far as to be sent, although some have ended.
bool nothingWasSent(const communication::ClientStatistics::Snapshot& counted);

}  // namespace orvx::announce
