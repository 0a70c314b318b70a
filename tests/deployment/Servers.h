#pragma once

#include "ChildProcess.h"
#include "Folder.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace orvx::testing {

/// A temporary folder with certificates.
class CertificateFolder : public Folder {
  public:
    /// Makes `name`.pem and `name`.key of an authority. All authorities have the same name.
    void makeAuthority(const std::string& name) const;
    /// Makes, or replaces as a whole, `name`.pem and `name`.key, for these alternative names.
    void makeCertificate(const std::string& name, const std::string& authority,
                         const std::string& names = "IP:127.0.0.1,DNS:localhost") const;
    /// The same with the default names, but expired yesterday.
    void makeExpiredCertificate(const std::string& name, const std::string& authority) const;
};

/// A server program at a port of its own.
class Program {
  public:
    using Start = std::function<std::unique_ptr<registry::ChildProcess>(std::uint16_t port)>;

    /// `start` returns when the program listens there, and throws when it does not. It is called
    /// for one free port after another until it succeeds.
    explicit Program(const Start& start);
    /// Tells it to end and waits.
    ~Program();
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;

    std::uint16_t port() const { return port_; }
    registry::ChildProcess& process() const { return *process_; }

  private:
    std::uint16_t port_ = 0;
    std::unique_ptr<registry::ChildProcess> process_;
};

/// nginx in front of a registry.
class Nginx {
  public:
    /// `options` go into its server, which listens at a port of its own, speaking TLS or not, and
    /// at a Unix domain socket, folder.file("registry.socket"), beside. `tables` stand outside.
    struct Config {
        bool tls = false;
        std::string options;
        std::string tables;
    };

    Nginx(const Folder& folder, std::uint16_t registry, const Config& config);

    std::uint16_t port() const { return program_->port(); }
    /// From its return on nobody is served otherwise; connections kept until then are closed. Once.
    void reload(const Config& config);
    /// A line for each request: method, status, the client's Authorization header, the name in its
    /// certificate, and the how manyth request it is on its connection.
    std::string log() const { return contentOf(folder_.file("access.log")); }

  private:
    void configure(std::uint16_t port, const Config& config) const;

    const Folder& folder_;
    const std::uint16_t registry_;
    std::unique_ptr<Program> program_;
};

/// haproxy with the configuration of examples/haproxy, whose files are in the folder.
class Haproxy {
  public:
    explicit Haproxy(const Folder& folder);

    std::uint16_t port() const { return program_->port(); }
    /// From its return on new processes of haproxy serve, which know only its files.
    void reload() const;
    /// The paths of the example, and these in the folder in their place.
    static std::string inFolder(std::string text, const Folder& folder);

  private:
    std::unique_ptr<Program> program_;
};

/// tinyproxy, for whoever shows user and password.
class Proxy {
  public:
    Proxy(const Folder& folder, const std::string& user, const std::string& password);

    std::uint16_t port() const { return program_->port(); }
    std::string url() const { return "http://127.0.0.1:" + std::to_string(port()); }
    void awaitRequest(const std::string& line) { program_->process().awaitOutput(line); }

  private:
    std::unique_ptr<Program> program_;
};

}  // namespace orvx::testing
