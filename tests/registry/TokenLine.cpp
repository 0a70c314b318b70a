// Makes the line that a user makes with sha256sum(1). Thread-safe: there is no state.

#include "TokenLine.h"

#include <openssl/sha.h>

#include <array>

namespace orvx::registry {

std::string tokenLine(const std::string& name, const std::string& rights) {
    static constexpr char kDigits[] = "0123456789abcdef";
    const std::string secret = name + "-secret";
    std::array<unsigned char, SHA256_DIGEST_LENGTH> hash{};
    SHA256(reinterpret_cast<const unsigned char*>(secret.data()), secret.size(), hash.data());
    std::string line = R"({"name":")" + name + R"(","sha256":")";
    for (const unsigned char byte : hash) {
        line += {kDigits[byte / 16U], kDigits[byte % 16U]};
    }
    return line + R"(",)" + rights + "}\n";
}

}  // namespace orvx::registry
