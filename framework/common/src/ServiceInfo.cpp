// An endpoint and the key that identifies it.
// A value without a lock: several threads may read it.

#include <orvx/common/ServiceInfo.h>

#include <algorithm>
#include <tuple>

namespace orvx::common {

namespace {

/// Host names compare without regard to case in ASCII only, whatever the process's locale is.
char toLower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

}  // namespace

ServiceInfo::ServiceInfo(std::string name, std::string host, std::uint16_t port, std::string prefix,
                         ServiceVersion version)
    : name_(std::move(name)),
      host_(std::move(host)),
      port_(port),
      prefix_(std::move(prefix)),
      version_(std::move(version)) {}

std::string ServiceInfo::getKey() const {
    const bool bareIpv6 = host_.find(':') != std::string::npos && host_.front() != '[';
    std::string key = bareIpv6 ? '[' + host_ + ']' : host_;
    std::transform(key.begin(), key.end(), key.begin(), toLower);
    key += ':';
    return key += std::to_string(port_);
}

bool ServiceInfo::operator==(const ServiceInfo& other) const {
    const auto values = [](const ServiceInfo& info) {
        return std::tie(info.name_, info.host_, info.port_, info.prefix_, info.version_);
    };
    return values(*this) == values(other);
}

}  // namespace orvx::common
