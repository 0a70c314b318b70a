#pragma once

namespace orvx::announce {

/// The exit codes of the program itself. Those from 124 on follow env(1) and timeout(1).
enum ExitCode {
    kWithdrawn = 0,
    /// Without a command: an entry may be left, or the registry has refused a service.
    kNotWithdrawn = 1,
    /// The command ended with 0, but an entry may be left at the registry.
    kEntryMayBeLeft = 123,
    kNotReadyInTime = 124,
    kOwnFailure = 125,
    kCannotBeExecuted = 126,
    kNotFound = 127,
    /// Plus the number of the signal that ended the command.
    kSignalled = 128,
};

}  // namespace orvx::announce
