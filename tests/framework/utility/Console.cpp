// Reads the output of console loggers.

#include "Console.h"

#include <orvx/utility/TimedConsoleLoggerFactory.h>

#include <gtest/gtest.h>

namespace orvx::utility::test {

std::string standardErrorOf(const std::function<void()>& work) {
    testing::internal::CaptureStderr();
    work();
    return testing::internal::GetCapturedStderr();
}

std::string shownOnConsole(const std::string& message) {
    TimedConsoleLoggerFactory factory(ILogger::LogLevel::Error);
    const auto logger = factory.createLogger("Component", "Name");
    const auto line = standardErrorOf([&] { logger->log(message, 0); });
    const std::string before = " ERROR Component.Name: ";
    const auto begin = line.find(before);
    if (begin == std::string::npos || line.back() != '\n') {
        return "no line: " + line;
    }
    return line.substr(begin + before.size(), line.size() - begin - before.size() - 1);
}

}  // namespace orvx::utility::test
