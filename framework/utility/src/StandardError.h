#pragma once

#include <cstddef>
#include <string_view>

namespace orvx::utility {

/// What to do where standard error can only be written to in a way that may wait.
enum class MayWait { No, Yes };

/// Writes to standard error what it takes without waiting. How many bytes need not be given again:
/// those that were taken, or all of them when nothing will ever take them. Raises no SIGPIPE and
/// leaves the flags of standard error, which other processes share, alone. Any thread; no lock.
std::size_t writeToStandardError(std::string_view text, MayWait mayWait) noexcept;

}  // namespace orvx::utility
