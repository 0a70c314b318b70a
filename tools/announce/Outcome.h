#pragma once

#include <serviceregistryclient/OrvRegistrationResponse.h>
#include <serviceregistryclient/RegistrationStatus.h>

#include <orvx/communication/ClientStatistics.h>

#include <nlohmann/json_fwd.hpp>

#include <string>

namespace orvx::announce {

/// Describes the outcome: "HTTP 400: {...}", "CONNECT_FAILED", or the error code of a request that
/// was not sent.
std::string toText(const serviceregistryclient::OrvRegistrationResponse& outcome);

nlohmann::json toJson(const serviceregistryclient::RegistrationStatus::Failure& failure);

/// Whether the registry's response ends a first registration.
bool isRefusal(const serviceregistryclient::RegistrationStatus::Failure& failure);

/// Whether requests have ended and none of them was ever sent. Says nothing about a request that
/// has not ended.
bool nothingWasSent(const communication::ClientStatistics::Snapshot& counted);

}  // namespace orvx::announce
