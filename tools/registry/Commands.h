#pragma once

#include <functional>

namespace CLI {
class App;
}

namespace orvx::registry {

/// Adds list, get, rm and watch, which ask a registry that runs. `run`: set to what the command
/// does when it is the one that was given; that returns the exit status.
void addCommands(CLI::App& app, std::function<int()>& run);

}  // namespace orvx::registry
