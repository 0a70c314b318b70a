#pragma once

#include <orvx/common/ServiceCreate.h>

#include <memory>

#include "InputFile.h"
#include "Options.h"

namespace orvx::announce {

/// The descriptions, each with a name, a port, a host and a uri, and no two with the same uri: they
/// would be one entry. Throws UsageError.
std::vector<nlohmann::json> describe(const ServiceOptions& options, const RegistryOptions& registry,
                                     Reading reading);

/// What the library registers.
std::shared_ptr<common::ServiceCreate> toService(const nlohmann::json& description);

}  // namespace orvx::announce
