#include "RegistryProcess.h"

#include "Paths.h"

#include <fstream>
#include <stdexcept>
#include <utility>

namespace orvx::registry {

RegistryProcess::RegistryProcess(std::vector<std::string> arguments)
    : ChildProcess(path(), std::move(arguments)) {}

std::string RegistryProcess::path() {
    return paths::kRegistryProgram;
}

long RegistryProcess::residentKilobytes() const {
    std::ifstream status("/proc/" + std::to_string(pid()) + "/status");
    for (std::string word; status >> word;) {
        if (word == "VmRSS:") {
            status >> word;
            return std::stol(word);
        }
    }
    throw std::runtime_error("no VmRSS");
}

}  // namespace orvx::registry
