// Finds numbers that CLI11 would not take as decimal ones.
// Runs on the main thread; there is no state and no lock.

#include "DecimalNumber.h"

namespace orvx::tools {

std::string faultOfDecimal(const std::string& text) {
    const bool hasDigitsOnly =
        !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
    const bool isPlain = text.size() == 1 || text.rfind('0', 0) != 0;
    return hasDigitsOnly && isPlain ? "" : "not a decimal number: " + text;
}

}  // namespace orvx::tools
