#pragma once

#include "Options.h"

namespace orvx::announce {

/// Parses `registry.url`. Throws UsageError.
void parseRegistryUrl(RegistryOptions& registry);

/// Whether the name is "localhost" or a loopback address.
bool isLoopback(const std::string& host);

}  // namespace orvx::announce
