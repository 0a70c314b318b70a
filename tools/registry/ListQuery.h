#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include "Entry.h"

namespace orvx::registry {

/// A place in the list that is not one of this process: its revisions and numbers are others.
class UnknownPlace : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// Which entries of the list are wanted.
struct ListQuery {
    static constexpr std::size_t kMaxLimit = 10'000;

    std::optional<std::string> name{};      ///< of the service
    std::optional<std::string> category{};  ///< one of the service's
    std::optional<std::string> version{};   ///< one of the service's
    std::optional<std::size_t> limit{};     ///< most entries; then the answer says what is next
    std::uint64_t after = 0;                ///< the number of the last entry that is known

    bool matches(const Entry& entry) const;
};

/// Reads what follows the `?` of a target. `instance`: the store's. Throws a std::invalid_argument,
/// or UnknownPlace.
ListQuery parseListQuery(std::string_view text, std::string_view instance);

/// Whether a reader of the stream gets the checks, by what follows the `?` of its target. Throws a
/// std::invalid_argument.
bool wantsChecks(std::string_view text);

/// What `after` is to be, for the entries that follow that number.
std::string placeAfter(std::uint64_t number, std::string_view instance);

}  // namespace orvx::registry
