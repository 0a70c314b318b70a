#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace orvx::registry {

/// The decoded path of a request target, without the query and a final slash ("/" becomes an empty
/// string). Empty if two readers could understand the target as different paths. Such a target
/// - does not begin with a slash,
/// - has a segment that is empty, `.` or `..`, as a whole or up to its first semicolon,
/// - has a backslash or a control character,
/// - has an escaped slash or percent sign, or an invalid escape, or
/// - is not UTF-8. /// These rules apply to the target both before and after decoding.
std::optional<std::string> plainPath(std::string_view target);

/// The path of a scope. Nothing if plainPath() returns nothing, if the text has a query, or if the
/// path has a semicolon: a reader that cuts segments at it would see the paths below as outside of
/// the scope.
std::optional<std::string> scopeOf(std::string_view text);

/// Whether a path is the scope or below it. Both are results of plainPath(). `/ab` is not below
/// `/a`.
bool isWithin(std::string_view path, std::string_view scope);

}  // namespace orvx::registry
