#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include "Entry.h"

namespace orvx::registry {

/// A query has an `after` of another numbering of entries.
class UnknownPlace : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// Selects entries of the list.
struct ListQuery {
    static constexpr std::size_t kMaxLimit = 10'000;

    std::optional<std::string> name{};      ///< of the service
    std::optional<std::string> category{};  ///< one of the service's
    std::optional<std::string> version{};   ///< one of the service's
    std::optional<std::size_t> limit{};     ///< of a page; entries with equal numbers may exceed it
    std::uint64_t after = 0;                ///< the number of the last entry that is known

    bool matches(const Entry& entry) const;
};

/// Reads the query of a target, without its `?`. `places`: EntryStore::places(). Throws a
/// std::invalid_argument, or UnknownPlace.
ListQuery parseListQuery(std::string_view text, std::string_view places);

/// Reads the query of a reader of the stream, without its `?`. Returns whether the reader gets the
/// checks. Throws a std::invalid_argument.
bool wantsChecks(std::string_view text);

/// The value of `after` that selects the entries after that number.
std::string placeAfter(std::uint64_t number, std::string_view places);

}  // namespace orvx::registry
