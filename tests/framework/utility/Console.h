#pragma once

#include <orvx/utility/ILogger.h>

#include <functional>
#include <string>

namespace orvx::utility::test {

/// What `work` writes to standard error.
std::string standardErrorOf(const std::function<void()>& work);

/// What a console logger writes for `message` at level Error, without what goes before it and
/// without the end of the line.
std::string shownOnConsole(const std::string& message);

}  // namespace orvx::utility::test
