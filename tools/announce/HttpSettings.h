#pragma once

#include <orvx/communication/HttpConfig.h>

#include "Options.h"

namespace orvx::announce {

/// The library's configuration, without credentials and statistics.
communication::HttpConfig httpConfig(const RegistryOptions& registry);

/// Throws UsageError if the library refuses the configuration, which would never work. All threads
/// that it starts have ended when it returns.
void checkHttpConfig(const RegistryOptions& registry);

}  // namespace orvx::announce
