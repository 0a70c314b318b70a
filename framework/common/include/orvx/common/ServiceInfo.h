#pragma once

#include <orvx/common/ServiceVersion.h>
#include <orvx/utility/Export.h>

#include <cstdint>
#include <string>

namespace orvx::common {

/// One service at one network endpoint. It has two uses: as the endpoint of the *registry* in the
/// operations that register, which use its host and port only; and as the endpoint of one of *your*
/// services, from which a description is built, which uses all of its values.
///
/// A value: copies are independent. Not synchronised; reading it from several threads is safe.
class ORVX_EXPORT ServiceInfo {
  public:
    /// `host` is a name, an IPv4 address, or an IPv6 address with or without brackets. `prefix` is
    /// the beginning of the uri of a description that is built from this object, if the client
    /// registers with prefixes. The name follows the prefix directly, so the prefix usually ends
    /// with "/".
    ServiceInfo(std::string name, std::string host, std::uint16_t port, std::string prefix = "",
                ServiceVersion version = {});

    /// The name of the service.
    const std::string& getName() const { return name_; }
    /// The host as it was given.
    const std::string& getHost() const { return host_; }
    /// The TCP port.
    std::uint16_t getPort() const { return port_; }
    /// The beginning of the uri of built descriptions; empty by default.
    const std::string& getPrefix() const { return prefix_; }
    /// The version of the service; empty by default.
    const ServiceVersion& getVersion() const { return version_; }

    /// Identifies the endpoint: the host in lower case, ":" and the port.
    std::string getKey() const;

    /// Whether all five values are equal, as given. To find out whether two objects name the same
    /// endpoint, compare getKey().
    bool operator==(const ServiceInfo& other) const;
    /// The opposite of `==`.
    bool operator!=(const ServiceInfo& other) const { return !(*this == other); }

  private:
    std::string name_;
    std::string host_;
    std::uint16_t port_;
    std::string prefix_;
    ServiceVersion version_;
};

}  // namespace orvx::common
