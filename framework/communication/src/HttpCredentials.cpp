// Builds the value of the Authorization header (RFC 7617, RFC 6750).
// Entered by the user's threads, which set credentials, and by the I/O thread, which reads them for
// each request. `mutex_` is a leaf lock: nothing is called under it.

#include <orvx/communication/HttpCredentials.h>

#include "Require.h"

#include <cstdint>
#include <string_view>
#include <utility>

namespace orvx::communication {

using utility::MutexLock;

namespace {

std::string base64(std::string_view bytes) {
    constexpr std::string_view kDigits =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string text;
    for (std::size_t i = 0; i < bytes.size(); i += 3) {
        const std::string_view group = bytes.substr(i, 3);
        std::uint32_t bits = 0;
        for (std::size_t k = 0; k < 3; ++k) {
            bits = bits << 8U | (k < group.size() ? static_cast<unsigned char>(group[k]) : 0U);
        }
        for (std::size_t k = 0; k < 4; ++k) {
            text += k <= group.size() ? kDigits[bits >> (18 - 6 * k) & 63U] : '=';
        }
    }
    return text;
}

}  // namespace

void HttpCredentials::setBearerToken(const std::string& token) {
    require(!token.empty(), "HttpCredentials: a token must not be empty.");
    requireText(token, "HttpCredentials: a token");
    set("Bearer " + token);
}

void HttpCredentials::setBasic(const std::string& user, const std::string& password) {
    requireText(user, "HttpCredentials: a user");
    requireText(password, "HttpCredentials: a password");
    require(user.find(':') == std::string::npos,
            "HttpCredentials: a user must not contain a colon.");
    set("Basic " + base64(user + ':' + password));
}

void HttpCredentials::clear() {
    set({});
}

std::string HttpCredentials::headerValue() const {
    MutexLock lock(mutex_);
    return headerValue_;
}

void HttpCredentials::set(std::string headerValue) {
    MutexLock lock(mutex_);
    headerValue_.swap(headerValue);
}

}  // namespace orvx::communication
