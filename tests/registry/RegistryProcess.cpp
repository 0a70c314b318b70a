// Apart, since the path of the program differs from one build folder to the next.
#include "RegistryProcess.h"

#include <utility>

namespace orvx::registry {

RegistryProcess::RegistryProcess(std::vector<std::string> arguments)
    : ChildProcess(path(), std::move(arguments)) {}

std::string RegistryProcess::path() {
    return ORVX_REGISTRY_PROGRAM;
}

}  // namespace orvx::registry
