// Entered by any thread; there is no state and no lock.

#include "Url.h"

namespace orvx::registry {

std::optional<Url> parseUrl(std::string_view text) {
    const std::size_t end = text.find("://");
    const std::string_view scheme = text.substr(0, end);
    if (end == std::string_view::npos || (scheme != "http" && scheme != "https")) {
        return std::nullopt;
    }
    text.remove_prefix(end + 3);
    if (!text.empty() && text.back() == '/') {
        text.remove_suffix(1);
    }
    const std::size_t bracket = text.find(']');
    const std::size_t colon = text.find(':', bracket == std::string_view::npos ? 0 : bracket);
    std::string_view host = text.substr(0, colon);
    const std::string_view port = colon != std::string_view::npos ? text.substr(colon + 1)
                                  : scheme == "https"             ? "443"
                                                                  : "80";
    if (host.size() > 2 && host.front() == '[' && host.back() == ']') {
        host = host.substr(1, host.size() - 2);
    }
    if (host.empty() || host.find_first_of("/@?#[] \r\n") != std::string_view::npos ||
        port.empty() || port.size() > 5 ||
        port.find_first_not_of("0123456789") != std::string_view::npos ||
        std::stoul(std::string(port)) > 65'535) {
        return std::nullopt;
    }
    return Url{scheme == "https", std::string(text), std::string(host), std::string(port)};
}

}  // namespace orvx::registry
