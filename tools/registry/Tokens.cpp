// Reads the file of tokens, and finds a token by the hash of its secret.
// Thread-safe: nothing changes after construction.

#include "Tokens.h"

#include <openssl/crypto.h>
#include <openssl/sha.h>

#include <algorithm>
#include <charconv>

#include "FileContent.h"
#include "JsonFields.h"
#include "PathScope.h"

namespace orvx::registry {

namespace {

constexpr std::size_t kLongestName = 64;
constexpr const char* kNameLetters =
    "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789._-";

void require(bool isFine, const char* otherwise) {
    if (!isFine) {
        throw std::invalid_argument(otherwise);
    }
}

std::string readName(JsonFields& fields) {
    std::string name = fields.text("name");
    require(!name.empty() && name.size() <= kLongestName &&
                name.find_first_not_of(kNameLetters) == std::string::npos,
            "\"name\" must be 1 to 64 letters, digits, and . _ -");
    return name;
}

using Hash = std::array<unsigned char, 32>;

Hash hashOf(std::string_view secret) {
    Hash hash{};
    SHA256(reinterpret_cast<const unsigned char*>(secret.data()), secret.size(), hash.data());
    return hash;
}

Hash readHash(JsonFields& fields) {
    const std::string digits = fields.text("sha256");
    Hash hash{};
    bool isFine = digits.size() == 2 * hash.size();
    for (std::size_t i = 0; isFine && i < hash.size(); ++i) {
        const char* const two = digits.data() + 2 * i;
        isFine = std::from_chars(two, two + 2, hash[i], 16).ptr == two + 2;
    }
    require(isFine, "\"sha256\" must be 64 hexadecimal digits");
    require(hash != hashOf(""), "\"sha256\" is the hash of an empty text: there was no token");
    return hash;
}

Token readToken(std::string_view line) {
    JsonFields fields(line);
    Token token;
    token.name = readName(fields);
    token.hash = readHash(fields);
    if (fields.has("read")) {
        token.mayRead = fields.flag("read");
    }
    if (fields.has("administer")) {
        token.mayAdminister = fields.flag("administer");
    }
    if (fields.has("announce")) {
        token.scope = scopeOf(fields.text("announce"));
        require(token.scope.has_value(),
                "\"announce\" must be a path such as / or /lamps, without ? ; . .. and //");
    }
    if (fields.has("entries")) {
        token.maxEntries = fields.number("entries", 1, std::uint64_t{1} << 24);
    }
    if (fields.has("bytes")) {
        token.maxBytes = fields.number("bytes", 1, std::uint64_t{1} << 40);
    }
    fields.requireNoMore();
    return token;
}

}  // namespace

bool Token::mayAnnounce(std::string_view target) const {
    if (!scope) {
        return false;
    }
    const auto path = plainPath(target);
    // An entry that was put without tokens may have any path.
    return path ? isWithin(*path, *scope) : scope->empty();
}

Tokens::Tokens(std::string_view text) {
    JsonFields::forEachLine(text, [this](std::string_view line) {
        auto token = std::make_shared<const Token>(readToken(line));
        for (const auto& other : tokens_) {
            require(other->name != token->name, "another token has the same name");
            require(other->hash != token->hash, "another token has the same hash");
        }
        require(tokens_.size() < kMaxTokens, "there are more than 1000 tokens");
        tokens_.push_back(std::move(token));
    });
}

std::shared_ptr<const Token> Tokens::find(std::string_view secret) const {
    const Hash hash = hashOf(secret);
    std::shared_ptr<const Token> found;
    for (const auto& token : tokens_) {
        if (CRYPTO_memcmp(token->hash.data(), hash.data(), hash.size()) == 0) {
            found = token;
        }
    }
    return found;
}

std::shared_ptr<const Tokens> readTokens(const std::string& path) {
    const std::string text = contentOf("tokens", path);
    try {
        return std::make_shared<const Tokens>(text);
    } catch (const std::invalid_argument& error) {
        throw FileError("tokens " + path + ": " + error.what());
    }
}

}  // namespace orvx::registry
