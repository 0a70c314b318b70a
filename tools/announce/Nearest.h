#pragma once

#include <string>
#include <vector>

namespace orvx::announce {

/// Returns the name with the smallest edit distance to the word. `names` must not be empty.
std::string nearest(const std::string& word, const std::vector<std::string>& names);

}  // namespace orvx::announce
