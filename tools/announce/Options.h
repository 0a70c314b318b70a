#pragma once

#include <nlohmann/json.hpp>

#include <chrono>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace orvx::announce {

/// The user's input is invalid; the message tells why.
struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// The output is written; the process has to end with this code.
struct EarlyExit {
    int exitCode;
};

/// The registry's address, and how to connect to it.
struct RegistryOptions {
    std::string url;
    bool secure = false;
    std::string host;
    std::uint16_t port = 0;
    std::string authorityFile;
    std::string clientCertificateFile;
    std::string clientKeyFile;
    std::string tokenFile;
    std::string proxy;
    std::string unixSocket;
    std::chrono::seconds checkInterval{10};
    std::chrono::milliseconds checkTimeout{3000};
    std::chrono::milliseconds retryInterval{500};
};

/// How a service is probed.
struct ProbeOptions {
    enum class Kind { None, Tcp, Http, Command };

    Kind kind = Kind::None;
    std::string path;
    std::string command;
};

/// How the readiness of the command is determined.
struct ReadyOptions : ProbeOptions {
    std::chrono::milliseconds timeout{30000};
};

/// When a service counts as unhealthy, and is withdrawn until it is healthy again.
struct HealthOptions : ProbeOptions {
    std::chrono::milliseconds interval{10000};
    std::chrono::milliseconds timeout{3000};
    /// Consecutive failures until the service counts as unhealthy.
    unsigned failures = 3;
    /// Consecutive successes until the service counts as healthy again.
    unsigned successes = 2;
};

/// The services on the command line: one service, or a file with several.
struct ServiceOptions {
    std::string file;
    std::string name;
    unsigned port = 0;
    std::string host;
    std::string version;
    std::vector<std::string> categories;
    std::vector<std::string> privileges;
    std::string description;
    std::string uri;
};

struct Options {
    RegistryOptions registry;
    ServiceOptions service;
    /// The complete descriptions, with the keys of docs/registry-protocol.md.
    std::vector<nlohmann::json> services;
    std::vector<std::string> command;
    ReadyOptions ready;
    HealthOptions health;
    /// The host that readiness and health probes connect to; empty: the announced host.
    std::string probedHost;
    std::chrono::milliseconds withdrawTimeout{5000};
    std::chrono::milliseconds stopTimeout{10000};
    bool json = false;
    std::string statusFile;
};

inline double inSeconds(std::chrono::milliseconds time) {
    return std::chrono::duration<double>(time).count();
}

/// Parses the command line. Prints the help, the version or an error message, if one is due, and
/// throws EarlyExit.
Options parseOptions(int argc, char** argv);

}  // namespace orvx::announce
