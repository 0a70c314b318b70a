#pragma once

#include <functional>

namespace CLI {
class App;
}

namespace orvx::registry {

/// Adds the commands list, get, rm and watch, which send requests to a running registry. `run`: set
/// to the function of the command that the user gives; the function returns the exit status.
void addCommands(CLI::App& app, std::function<int()>& run);

}  // namespace orvx::registry
