#pragma once

#include <orvx/common/ServiceVersion.h>
#include <orvx/utility/Export.h>

#include <cstdint>
#include <string>

namespace orvx::common {

/// One service at one network endpoint. It plays two roles: the endpoint of the *registry*, given
/// to the operations that register (its host and port count), and the endpoint of a service of
/// *yours*, from which a description is built (all of it counts).
///
/// A value: copies are independent. Not synchronised; reading it from several threads is safe.
class ORVX_EXPORT ServiceInfo {
  public:
    /// `host` is a name, an IPv4 address, or an IPv6 address with or without brackets.
    /// `prefix` is what the uri of a description built from this begins with, where the client was
    /// told to register with prefixes; it ends as the uri should go on, usually with "/".
    ServiceInfo(std::string name, std::string host, std::uint16_t port, std::string prefix = "",
                ServiceVersion version = {});

    /// The name of the service.
    const std::string& getName() const { return name_; }
    /// The host as it was given.
    const std::string& getHost() const { return host_; }
    /// The TCP port.
    std::uint16_t getPort() const { return port_; }
    /// What uris of built descriptions begin with; empty by default.
    const std::string& getPrefix() const { return prefix_; }
    /// The version of the service; empty by default.
    const ServiceVersion& getVersion() const { return version_; }

    /// What identifies the endpoint: the host in lower case, ":" and the port.
    std::string getKey() const;

    /// Whether all five values are the same, as they were given: getKey() tells whether two
    /// endpoints are.
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
