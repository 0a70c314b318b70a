// A network endpoint and the key that identifies it.
// A value without a lock: several threads may read it.

#include <orvx/common/ServiceInfo.h>

#include <orvx/utility/Ascii.h>
#include <orvx/utility/HostAndPort.h>

#include <algorithm>
#include <tuple>

namespace orvx::common {

ServiceInfo::ServiceInfo(std::string name, std::string host, std::uint16_t port, std::string prefix,
                         ServiceVersion version)
    : name_(std::move(name)),
      host_(std::move(host)),
      port_(port),
      prefix_(std::move(prefix)),
      version_(std::move(version)) {}

std::string ServiceInfo::getKey() const {
    std::string key = utility::hostAndPort(host_, port_);
    std::transform(key.begin(), key.end(), key.begin(), utility::toLower);
    return key;
}

bool ServiceInfo::operator==(const ServiceInfo& other) const {
    const auto values = [](const ServiceInfo& info) {
        return std::tie(info.name_, info.host_, info.port_, info.prefix_, info.version_);
    };
    return values(*this) == values(other);
}

}  // namespace orvx::common
