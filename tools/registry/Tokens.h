#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Entry.h"

namespace orvx::registry {

/// The rights of one secret. Only the hash of the secret is stored.
struct Token {
    std::string name;  ///< of letters, digits, and `.`, `_`, `-`; not a secret
    std::array<unsigned char, 32> hash{};
    bool mayRead = false;
    bool mayAdminister = false;
    std::optional<std::string> scope{};  ///< where it may announce; the result of scopeOf()
    std::size_t maxEntries = 10'000;
    std::uint64_t maxBytes = 64'000'000;

    /// `target`: the request target of a put, or the path of an entry.
    bool mayAnnounce(std::string_view target) const;

    Owner owner() const { return {name, maxEntries, maxBytes}; }
};

/// The tokens of a file. docs/registry-tool.md describes it.
///
/// Thread-safety: immutable.
class Tokens {
  public:
    static constexpr std::size_t kMaxTokens = 1'000;

    /// Throws a std::invalid_argument that begins with `line 3: ` and shows no value of the text.
    explicit Tokens(std::string_view text);

    /// The token of that secret, or null. The time does not depend on how much of the secret is
    /// right.
    std::shared_ptr<const Token> find(std::string_view secret) const;

  private:
    std::vector<std::shared_ptr<const Token>> tokens_;
};

/// Throws a FileError.
std::shared_ptr<const Tokens> readTokens(const std::string& path);

}  // namespace orvx::registry
