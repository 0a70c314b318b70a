#pragma once

namespace orvx::announce {

/// How the program ends where it does not end as its command did: as env(1) and timeout(1) do.
enum ExitCode {
    kWithdrawn = 0,
    /// Without a command: an entry may be left at the registry, or it refused the services.
    kNotWithdrawn = 1,
    /// The command ended with 0, but an entry may be left at the registry.
    kLeftBehind = 123,
    kNotReadyInTime = 124,
    kOwnFailure = 125,
    kCannotBeExecuted = 126,
    kNotFound = 127,
    /// And the number of the signal that ended the command.
    kSignalled = 128,
};

}  // namespace orvx::announce
