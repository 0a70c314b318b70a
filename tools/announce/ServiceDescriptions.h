#pragma once

#include <orvx/common/ServiceCreate.h>

#include <memory>

#include "InputFile.h"
#include "Options.h"

namespace orvx::announce {

/// Returns the descriptions, each with a name, a port, a host and a uri. Throws UsageError for an
/// invalid one, and for two with the same uri, which would share one entry.
std::vector<nlohmann::json> readDescriptions(const ServiceOptions& options,
                                             const RegistryOptions& registry, Reading reading);

/// Converts a description to the library's type.
std::shared_ptr<common::ServiceCreate> toService(const nlohmann::json& description);

}  // namespace orvx::announce
