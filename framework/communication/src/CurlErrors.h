#pragma once

#include <orvx/communication/CommunicationStatus.h>

#include <curl/curl.h>

namespace orvx::communication {

/// What a result of libcurl's means for a request, as far as the result alone tells.
CommunicationStatus statusOf(CURLcode code) noexcept;

}  // namespace orvx::communication
