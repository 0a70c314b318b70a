// Base64 by OpenSSL. The text is checked first, because OpenSSL's decoder accepts spaces and counts
// padding as bytes. Entered by any thread; there is no state and no lock.

#include "Base64.h"

#include <openssl/evp.h>

namespace orvx::registry {

std::string encode64(std::string_view bytes) {
    std::string text((bytes.size() + 2) / 3 * 4 + 1, '\0');  // OpenSSL also writes a NUL
    const int size = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()),
                                     reinterpret_cast<const unsigned char*>(bytes.data()),
                                     static_cast<int>(bytes.size()));
    text.resize(static_cast<std::size_t>(size));
    return text;
}

std::optional<std::string> decode64(std::string_view text) {
    constexpr std::string_view kDigits =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    const std::size_t last = text.find_last_not_of('=');
    const std::size_t padding = text.size() - (last == std::string_view::npos ? 0 : last + 1);
    if (text.size() % 4 != 0 || padding > 2 ||
        text.substr(0, text.size() - padding).find_first_not_of(kDigits) !=
            std::string_view::npos) {
        return std::nullopt;
    }
    std::string bytes(text.size() / 4 * 3, '\0');
    const int size = EVP_DecodeBlock(reinterpret_cast<unsigned char*>(bytes.data()),
                                     reinterpret_cast<const unsigned char*>(text.data()),
                                     static_cast<int>(text.size()));
    if (size < 0) {
        return std::nullopt;
    }
    bytes.resize(static_cast<std::size_t>(size) - padding);
    return bytes;
}

}  // namespace orvx::registry
