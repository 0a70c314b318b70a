#pragma once

#include <orvx/communication/HttpConfig.h>

namespace orvx::communication {

/// Throws utility::OrvFoundationException, with a sentence that names the option, if the
/// configuration is invalid. Does not access files.
void checkConfig(const HttpConfig& config);

}  // namespace orvx::communication
