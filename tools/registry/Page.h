#pragma once

#include <optional>
#include <string_view>

#include "RequestHandler.h"

namespace orvx::registry {

/// The files page.html, page.css and page.js, which the build embeds.
namespace asset {
extern const std::string_view kHtml;
extern const std::string_view kCss;
extern const std::string_view kJs;
}  // namespace asset

/// The page that shows the entries, for a GET or HEAD of / that accepts text/html, or its
/// /-/page.css or /-/page.js. Nothing for any other request.
std::optional<Response> pageAsset(const Request& request);

}  // namespace orvx::registry
