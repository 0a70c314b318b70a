// Apart, since the path of the program differs from one build folder to the next.
#include "RegistryProcess.h"

#include <fstream>
#include <stdexcept>
#include <utility>

namespace orvx::registry {

RegistryProcess::RegistryProcess(std::vector<std::string> arguments)
    : ChildProcess(path(), std::move(arguments)) {}

std::string RegistryProcess::path() {
    return ORVX_REGISTRY_PROGRAM;
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
