// Files of tokens with lines made from parts or of any bytes: they are refused with the number of a
// line and without a hash, or read so that each secret has the rights of its line. One thread;
// there is no lock.

#include "Input.h"
#include "PathScope.h"
#include "Tokens.h"

#include <openssl/sha.h>

#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <stdexcept>

namespace {

using nlohmann::json;
using orvx::fuzz::Input;
using orvx::fuzz::require;
using orvx::fuzz::requireSame;
using orvx::registry::scopeOf;
using orvx::registry::Token;
using orvx::registry::Tokens;

std::string secretOf(unsigned number) {
    return "secret" + std::to_string(number);
}

std::string hashOf(const std::string& secret) {
    unsigned char hash[SHA256_DIGEST_LENGTH];
    SHA256(reinterpret_cast<const unsigned char*>(secret.data()), secret.size(), hash);
    std::string digits;
    for (const unsigned char byte : hash) {
        digits += "0123456789abcdef"[byte / 16];
        digits += "0123456789abcdef"[byte % 16];
    }
    return digits;
}

/// A file, and its expected content.
class File {
  public:
    explicit File(Input& input) {
        while (!input.isEmpty()) {
            const unsigned kind = input.below(8);
            if (kind == 0) {
                text_ += input.text();
                isKnown_ = false;
            } else {
                addToken(input);
            }
            text_ += '\n';
        }
    }

    void read() const {
        try {
            const Tokens tokens(text_);
            require(!isKnown_ || isFine_, "a wrong line is refused");
            requireRights(tokens);
        } catch (const std::invalid_argument& error) {
            const std::string message = error.what();
            require(!isKnown_ || !isFine_, "right lines are read");
            requireSame(message.substr(0, 5), "line ", "the beginning of the message");
            for (const auto& [secret, line] : lines_) {
                require(message.find(hashOf(secret)) == std::string::npos, "no hash is shown");
            }
        }
    }

  private:
    /// Each field is valid more often than not.
    void addToken(Input& input) {
        const std::string secret = secretOf(input.below(16));
        json line{{"name", nameFrom(input)}, {"sha256", hashOf(secret)}};
        addRights(input, line);
        isFine_ = isFine_ && names_.insert(line["name"]).second && lines_.count(secret) == 0;
        lines_[secret] = line;
        text_ += line.dump(-1, ' ', true, json::error_handler_t::replace);
    }

    std::string nameFrom(Input& input) {
        static const std::string kLetters = "abcXYZ019._-";
        const unsigned length = input.below(70);
        std::string name;
        for (unsigned i = 0; i < length; ++i) {
            name += kLetters[input.below(static_cast<unsigned>(kLetters.size()))];
        }
        isFine_ = isFine_ && !name.empty() && name.size() <= 64;
        return name;
    }

    void addRights(Input& input, json& line) {
        const unsigned rights = input.byte();
        for (const auto& [bit, name] : {std::pair(1U, "read"), std::pair(2U, "administer")}) {
            if ((rights & bit) != 0) {
                line[name] = (rights & (bit << 4U)) != 0;
            }
        }
        if ((rights & 4U) != 0) {
            const std::string path = (rights & 0x40U) != 0 ? "/lamps" : asUtf8(input.text());
            line["announce"] = path;
            isFine_ = isFine_ && scopeOf(path);
        }
        if ((rights & 8U) != 0) {
            const std::uint64_t entries = (rights & 0x80U) != 0 ? input.number() : input.byte();
            line["entries"] = entries;
            isFine_ = isFine_ && entries >= 1 && entries <= 1U << 24U;
        }
    }

    static std::string asUtf8(const std::string& text) {
        return json::parse(json(text).dump(-1, ' ', false, json::error_handler_t::replace));
    }

    void requireRights(const Tokens& tokens) const {
        for (unsigned number = 0; number < 16; ++number) {
            const std::string secret = secretOf(number);
            const auto line = lines_.find(secret);
            const auto token = tokens.find(secret);
            requireSame(token != nullptr, line != lines_.end(), "finding a token");
            require(tokens.find(secret + 'x') == nullptr, "a longer secret is another one");
            if (token) {
                requireLike(*token, line->second);
            }
        }
    }

    static void requireLike(const Token& token, const json& line) {
        requireSame(token.name, line.at("name").get<std::string>(), "the name");
        requireSame(token.mayRead, line.value("read", false), "the right to read");
        requireSame(token.mayAdminister, line.value("administer", false),
                    "the right to administer");
        require(token.scope == (line.contains("announce") ? scopeOf(std::string(line["announce"]))
                                                          : std::nullopt),
                "the scope");
        requireSame(token.maxEntries, line.value("entries", Token().maxEntries), "the entries");
        requireSame(token.maxBytes, Token().maxBytes, "the bytes");
    }

    std::string text_;
    bool isKnown_ = true;  // whether all lines are made from parts
    bool isFine_ = true;   // whether all lines are valid
    std::set<std::string> names_;
    std::map<std::string, json> lines_;  // by secret
};

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    Input input(bytes, size);
    File(input).read();
    return 0;
}
