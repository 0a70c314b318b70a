// Finds options whose value is an unset variable, as in --store=$STORE.
// Runs on the main thread; there is no state and no lock.

#include "EmptyValue.h"

#include <algorithm>

namespace orvx::tools {

std::string optionWithEmptyValue(const char* const* begin, const char* const* end) {
    const char* const* const found = std::find_if(begin, end, [](const std::string& argument) {
        return argument.size() > 3 && argument.compare(0, 2, "--") == 0 &&
               argument.find('=') == argument.size() - 1;
    });
    return found == end ? "" : std::string(*found, std::string(*found).size() - 1);
}

}  // namespace orvx::tools
