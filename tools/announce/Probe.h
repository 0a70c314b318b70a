#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include "Children.h"
#include "Options.h"

namespace orvx::announce {

/// The times after which an attempt without a shell command ends itself.
struct ProbeLimits {
    std::chrono::milliseconds each;  ///< for one service
    std::chrono::milliseconds all;
};

/// Starts one attempt to reach services, in a process of its own, because name resolution and shell
/// commands may block. `targets` holds hosts and ports alternately, all of which must answer;
/// `shellArguments` are $1, $2 and so on of the shell command. Throws std::system_error with the
/// reason.
pid_t startProbe(Children& children, const ProbeOptions& options,
                 const std::vector<std::string>& targets,
                 const std::vector<std::string>& shellArguments, const ProbeLimits& limits,
                 Children::OnExit onExit);

/// Whether startProbe() has failed because processes, memory or open files have run out. Such an
/// error says nothing about the service.
bool isShortage(const std::error_code& error);

/// Describes why a probe with this status of waitpid() has failed.
std::string probeFailureReason(const ProbeOptions& options, int status);

/// Runs the attempt if startProbe() has started this process, and returns its exit code. Returns
/// std::nullopt if a user has started the process.
std::optional<int> runAsProbe(int argc, char** argv);

}  // namespace orvx::announce
