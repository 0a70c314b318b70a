#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "ChildProcess.h"

namespace orvx::registry {

/// The program orvx-registry as a child process.
///
/// Thread-safety: none.
class RegistryProcess : public ChildProcess {
  public:
    explicit RegistryProcess(std::vector<std::string> arguments);

    /// The path of the program.
    static std::string path();

    /// The resident memory of the process.
    long residentKilobytes() const;

    /// Waits for the first line of the output, and returns the port in it.
    std::uint16_t port() {
        const std::string& line = awaitOutput("\n");
        return static_cast<std::uint16_t>(std::stoi(line.substr(line.rfind(':') + 1)));
    }
};

}  // namespace orvx::registry
