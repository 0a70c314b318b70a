// Finds the name that a misspelt word probably means.
// Pure functions; there is no lock.

#include "Nearest.h"

#include <algorithm>
#include <numeric>
#include <string_view>

namespace orvx::announce {

namespace {

/// The edit distance: letters to change, insert or delete.
std::size_t distance(std::string_view left, std::string_view right) {
    std::vector<std::size_t> row(right.size() + 1);
    std::iota(row.begin(), row.end(), std::size_t{0});
    for (std::size_t i = 1; i <= left.size(); ++i) {
        std::size_t diagonal = row[0]++;
        for (std::size_t j = 1; j <= right.size(); ++j) {
            const std::size_t changed = diagonal + (left[i - 1] == right[j - 1] ? 0 : 1);
            diagonal = row[j];
            row[j] = std::min({changed, row[j] + 1, row[j - 1] + 1});
        }
    }
    return row.back();
}

}  // namespace

std::string nearest(const std::string& word, const std::vector<std::string>& names) {
    return *std::min_element(names.begin(), names.end(), [&](const auto& a, const auto& b) {
        return distance(word, a) < distance(word, b);
    });
}

}  // namespace orvx::announce
