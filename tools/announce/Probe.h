#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "Children.h"
#include "Options.h"

namespace orvx::announce {

/// Starts one attempt to reach services, in a process of its own: looking up a name, or a shell
/// command that hangs, holds nothing up. `targets` are hosts and ports in turn, which all have to
/// answer; `words` are the shell command's $1, $2 and so on. An attempt at hosts ends by itself
/// after `bound`. Throws std::system_error with the reason.
pid_t startProbe(Children& children, const ProbeOptions& options,
                 const std::vector<std::string>& targets, const std::vector<std::string>& words,
                 std::chrono::milliseconds bound, Children::Ended ended);

/// In words, why a probe with this status of waitpid() has failed.
std::string whyProbeFailed(const ProbeOptions& options, int status);

/// The exit code of this process where startProbe() has started it as an attempt; absent where a
/// user has started it.
std::optional<int> runAsProbe(int argc, char** argv);

}  // namespace orvx::announce
