// Parses the scheme, host and port of the registry's URL.
// Runs on the main thread; there is no lock.

#include "RegistryUrl.h"

#include <regex>

namespace orvx::announce {

void parseRegistryUrl(RegistryOptions& registry) {
    static const std::regex form(
        R"((https?)://([^/:@?#\[\]]+|\[[0-9A-Fa-f:.]+\])(?::(\d{1,5}))?/?)", std::regex::icase);
    std::smatch parts;
    if (!std::regex_match(registry.url, parts, form)) {
        throw UsageError("--registry: not of the form http(s)://host[:port]: " + registry.url);
    }
    registry.secure = parts.length(1) == 5;
    registry.host = parts[2];
    const int port = parts[3].matched ? std::stoi(parts[3]) : registry.secure ? 443 : 80;
    if (port < 1 || port > 65535) {
        throw UsageError("--registry: there is no port " + std::to_string(port));
    }
    registry.port = static_cast<std::uint16_t>(port);
}

bool isLoopback(const std::string& host) {
    return host == "localhost" || host == "[::1]" || host.rfind("127.", 0) == 0;
}

}  // namespace orvx::announce
