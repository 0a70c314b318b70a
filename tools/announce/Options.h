#pragma once

#include <nlohmann/json.hpp>

#include <chrono>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace orvx::announce {

/// What the user wrote makes no sense; the message says what.
struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// The command line has had its answer, and the process is to end with this code.
struct Answered {
    int exitCode;
};

/// Where the registry is, and how it is spoken to.
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

/// How a service is asked whether it is well.
struct ProbeOptions {
    enum class Kind { None, Tcp, Http, Command };

    Kind kind = Kind::None;
    std::string path;
    std::string command;
};

/// When the command counts as ready.
struct ReadyOptions : ProbeOptions {
    std::chrono::milliseconds timeout{30000};
};

/// When a service is withdrawn for a while.
struct HealthOptions : ProbeOptions {
    std::chrono::milliseconds interval{10000};
    std::chrono::milliseconds timeout{3000};
    /// In a row, until it counts as unhealthy.
    unsigned failures = 3;
    /// In a row, until it counts as healthy again.
    unsigned successes = 2;
};

/// The services as the command line gives them: one, or a file with several.
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
    /// The descriptions, complete, as docs/registry-protocol.md names their keys.
    std::vector<nlohmann::json> services;
    std::vector<std::string> command;
    ReadyOptions ready;
    HealthOptions health;
    /// Where both connect to; empty: where the service is announced.
    std::string probedHost;
    std::chrono::milliseconds withdrawTimeout{5000};
    std::chrono::milliseconds stopTimeout{10000};
    bool json = false;
    std::string statusFile;
};

inline double inSeconds(std::chrono::milliseconds time) {
    return std::chrono::duration<double>(time).count();
}

/// Reads the command line. When it asks for help, or makes no sense, this says so and throws
/// Answered.
Options parseOptions(int argc, char** argv);

}  // namespace orvx::announce
