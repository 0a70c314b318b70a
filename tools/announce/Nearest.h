#pragma once

#include <string>
#include <vector>

namespace orvx::announce {

/// The name that the fewest changes of single letters make of the word. There has to be a name.
std::string nearest(const std::string& word, const std::vector<std::string>& names);

}  // namespace orvx::announce
