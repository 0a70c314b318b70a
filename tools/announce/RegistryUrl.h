#pragma once

#include "Options.h"

namespace orvx::announce {

/// Takes `registry.url` apart. Throws UsageError.
void readRegistryUrl(RegistryOptions& registry);

/// Whether the registry is on this machine's loopback, as far as its name tells.
bool isLoopback(const std::string& host);

}  // namespace orvx::announce
