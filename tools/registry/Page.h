#pragma once

#include <optional>
#include <string_view>

#include "RequestHandler.h"

namespace orvx::registry {

/// The texts of the page, which the build takes from page.html, page.css and page.js.
namespace asset {
extern const std::string_view kHtml;
extern const std::string_view kCss;
extern const std::string_view kJs;
}  // namespace asset

/// The page that shows the entries, for a GET or HEAD of / that accepts text/html, or its
/// /-/page.css or /-/page.js. Empty: the request is another one.
std::optional<Response> pageAsset(const Request& request);

}  // namespace orvx::registry
