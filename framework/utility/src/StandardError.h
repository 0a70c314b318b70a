#pragma once

#include <cstddef>
#include <string_view>

namespace orvx::utility {

/// Whether to write to standard error if the write may block.
enum class MayWait { No, Yes };

/// Writes to standard error as many bytes as it takes without blocking. Returns the number of bytes
/// that must not be written again: those that were taken, or all bytes if they can never be
/// written. Raises no SIGPIPE and does not change the flags of standard error, which other
/// processes share. May be called from any thread; takes no lock.
std::size_t writeToStandardError(std::string_view text, MayWait mayWait) noexcept;

}  // namespace orvx::utility
