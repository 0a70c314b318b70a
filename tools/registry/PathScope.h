#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace orvx::registry {

/// The path of a request target as everyone must read it: decoded, and without the query and a
/// slash at its end ("/" becomes an empty text). Empty: it has no such reading. That is a target
/// that does not begin with a slash; has an empty, `.` or `..` segment, decoded or not, or one that
/// is so up to its first semicolon; has a backslash or a control character, decoded or not; names a
/// slash or a percent sign by an escape; has an escape that is none; or is no UTF-8.
std::optional<std::string> plainPath(std::string_view target);

/// Whether a path is the scope or below it. Both as plainPath() gives them: `/ab` is not below
/// `/a`.
bool isWithin(std::string_view path, std::string_view scope);

}  // namespace orvx::registry
