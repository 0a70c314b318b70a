#pragma once

#include <orvx/utility/ILogger.h>

#include <functional>
#include <string>

namespace orvx::utility::test {

/// The text that `work` writes to standard error.
std::string standardErrorOf(const std::function<void()>& work);

/// The text that a console logger writes for `message` at level Error, without the prefix and the
/// end of the line.
std::string shownOnConsole(const std::string& message);

}  // namespace orvx::utility::test
