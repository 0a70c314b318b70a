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
    /// Makes the certificate and key `name`.pem and `name`.key of an authority. All authorities
    /// have the same subject.
    void makeAuthority(const std::string& name) const;
    /// Makes `name`.pem and `name`.key for these alternative names, or replaces each of them in one
    /// step.
    void makeCertificate(const std::string& name, const std::string& authority,
                         const std::string& names = "IP:127.0.0.1,DNS:localhost") const;
    /// As makeCertificate() with the default names, but the certificate expired yesterday.
    void makeExpiredCertificate(const std::string& name, const std::string& authority) const;
};

/// A server program with its own port.
class Program {
  public:
    using Start = std::function<std::unique_ptr<registry::ChildProcess>(std::uint16_t port)>;

    /// `start` returns when the program listens at the port, and throws if it does not. It is
    /// called for one free port after another until it succeeds.
    explicit Program(const Start& start);
    /// Stops the program, and waits for its end.
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
    /// `options` go into its server, which listens with or without TLS at its own port, and also at
    /// the Unix domain socket folder.file("registry.socket"). `tables` stand outside the server.
    struct Config {
        bool tls = false;
        std::string options;
        std::string tables;
    };

    Nginx(const Folder& folder, std::uint16_t registry, const Config& config);

    std::uint16_t port() const { return program_->port(); }
    /// When it returns, no request is served with the old configuration any more; connections that
    /// were kept until then are closed. May be called once.
    void reload(const Config& config);
    /// A line for each request: method, status, the client's Authorization header, the name in its
    /// certificate, and the number of the request on its connection.
    std::string log() const { return contentOf(folder_.file("access.log")); }

  private:
    void configure(std::uint16_t port, const Config& config) const;

    const Folder& folder_;
    const std::uint16_t registry_;
    std::unique_ptr<Program> program_;
};

/// haproxy with the configuration of examples/haproxy and the files in the folder.
class Haproxy {
  public:
    explicit Haproxy(const Folder& folder);

    std::uint16_t port() const { return program_->port(); }
    /// When it returns, new haproxy processes serve, which know only the state in the files.
    void reload() const;
    /// Replaces the paths of the example with the corresponding paths in the folder.
    static std::string inFolder(std::string text, const Folder& folder);

  private:
    std::unique_ptr<Program> program_;
};

/// tinyproxy, which accepts requests with this user and password only.
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
