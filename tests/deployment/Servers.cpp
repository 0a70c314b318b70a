// Programs that stand between a client and its registry in a deployment, run as child processes
// with their configurations in a temporary folder. Entered by the test's thread only; there is no
// lock.

#include "Servers.h"

#include "Loopback.h"
#include "Paths.h"

#include <sys/wait.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <regex>
#include <stdexcept>

namespace orvx::testing {

using registry::ChildProcess;

namespace {

void openssl(std::vector<std::string> arguments) {
    const auto result = ChildProcess(ORVX_OPENSSL, std::move(arguments)).wait();
    if (!WIFEXITED(result.status) || WEXITSTATUS(result.status) != 0) {
        throw std::runtime_error("openssl: " + result.errors);
    }
}

std::vector<std::string> request(const std::string& name, const std::string& subject) {
    return {"req",    "-x509",   "-newkey",       "ec",   "-pkeyopt",    "ec_paramgen_curve:P-256",
            "-nodes", "-keyout", name + ".key",   "-out", name + ".pem", "-days",
            "2",      "-subj",   "/CN=" + subject};
}

}  // namespace

void CertificateFolder::makeAuthority(const std::string& name) const {
    openssl(request(file(name), "authority"));
}

void CertificateFolder::makeCertificate(const std::string& name, const std::string& authority,
                                        const std::string& names) const {
    auto arguments = request(file("made"), name);
    for (const std::string& argument :
         {std::string("-CA"), file(authority + ".pem"), std::string("-CAkey"),
          file(authority + ".key"), std::string("-addext"), "subjectAltName=" + names,
          std::string("-addext"), std::string("basicConstraints=critical,CA:FALSE")}) {
        arguments.push_back(argument);
    }
    openssl(arguments);
    for (const char* const ending : {".pem", ".key"}) {
        std::filesystem::rename(file("made") + ending, file(name) + ending);
    }
}

void CertificateFolder::makeExpiredCertificate(const std::string& name,
                                               const std::string& authority) const {
    makeCertificate(name, authority);
    openssl({"x509", "-x509toreq", "-in", file(name + ".pem"), "-signkey", file(name + ".key"),
             "-copy_extensions", "copy", "-out", file("made.csr")});
    // "openssl x509" of Debian 12 has no options for dates, and that of Debian 13 refuses to make
    // an expired certificate.
    std::ofstream(file("index")).close();
    std::ofstream(file("ca.conf"))
        << "[ca]\ndefault_ca=here\n[any]\ncommonName=supplied\n[here]\nrand_serial=yes\npolicy="
           "any\n"
        << "default_md=sha256\ncopy_extensions=copy\ndatabase=" << file("index")
        << "\nnew_certs_dir=" << file("") << '\n';
    openssl({"ca", "-batch", "-notext", "-config", file("ca.conf"), "-in", file("made.csr"),
             "-cert", file(authority + ".pem"), "-keyfile", file(authority + ".key"), "-startdate",
             "20010101000000Z", "-enddate", "20020101000000Z", "-out", file(name + ".pem")});
}

Program::Program(const Start& start) {
    constexpr int kTries = 10;
    for (int i = 1; !process_; ++i) {
        port_ = portOf(bindLoopback());
        try {
            process_ = start(port_);
        } catch (const std::runtime_error&) {
            if (i == kTries) {
                throw;
            }
        }
    }
}

Program::~Program() {
    process_->signal(SIGTERM);
    try {
        process_->wait();
    } catch (const std::runtime_error&) {
        // The destructor of the process kills it.
    }
}

Nginx::Nginx(const Folder& folder, std::uint16_t registry, const Config& config)
    : folder_(folder), registry_(registry) {
    program_ = std::make_unique<Program>([&](std::uint16_t port) {
        configure(port, config);
        auto process = std::make_unique<ChildProcess>(
            ORVX_NGINX, std::vector<std::string>{"-p", folder_.file(""), "-c",
                                                 folder_.file("nginx.conf"), "-e", "stderr"});
        process->awaitErrors("start worker process ");
        return process;
    });
}

void Nginx::reload(const Config& config) {
    configure(port(), config);
    program_->process().signal(SIGHUP);
    program_->process().awaitErrors("exited with code 0");
}

void Nginx::configure(std::uint16_t port, const Config& config) const {
    const std::string tls = config.tls ? " ssl" : "";
    folder_.write(
        "nginx.conf",
        "daemon off; user root; worker_processes 1; pid nginx.pid;\n"
        "error_log stderr notice;\n"
        "events {}\n"
        "http {\n"
        "log_format line '$request_method $status [$http_authorization] "
        "[$ssl_client_s_dn] $connection_requests';\n"
        "access_log access.log line;\n"
        "client_body_temp_path b; proxy_temp_path p; fastcgi_temp_path f;\n"
        "uwsgi_temp_path u; scgi_temp_path s;\n" +
            config.tables + "\nserver {\nlisten 127.0.0.1:" + std::to_string(port) + tls +
            ";\nlisten unix:" + folder_.file("registry.socket") + tls + ";\n" +
            (config.tls ? "ssl_certificate server.pem; ssl_certificate_key server.key;\n" : "") +
            config.options + "\nlocation / { proxy_pass http://127.0.0.1:" +
            std::to_string(registry_) + "; }\n}\n}\n");
}

Haproxy::Haproxy(const Folder& folder) {
    const std::string example =
        inFolder(contentOf(std::string(paths::kHaproxyExample) + "/haproxy.cfg"), folder);
    program_ = std::make_unique<Program>([&](std::uint16_t port) {
        const std::string config = folder.write(
            "haproxy.cfg",
            std::regex_replace(example, std::regex(":8080\\b"), ":" + std::to_string(port)));
        auto process = std::make_unique<ChildProcess>(ORVX_HAPROXY,
                                                      std::vector<std::string>{"-W", "-f", config});
        process->awaitErrors("Loading success");
        return process;
    });
}

void Haproxy::reload() const {
    program_->process().signal(SIGUSR2);
    program_->process().awaitErrors("Former worker");
}

std::string Haproxy::inFolder(std::string text, const Folder& folder) {
    for (const char* path : {"/run/haproxy/", "/var/lib/haproxy/"}) {
        text = std::regex_replace(text, std::regex(path), folder.file(""));
    }
    return text;
}

Proxy::Proxy(const Folder& folder, const std::string& user, const std::string& password) {
    program_ = std::make_unique<Program>([&](std::uint16_t port) {
        const std::string config = folder.write(
            "tinyproxy.conf", "Port " + std::to_string(port) +
                                  "\nListen 127.0.0.1\nTimeout 60\nMaxClients 50\nLogLevel Info\n"
                                  "BasicAuth " +
                                  user + " " + password + "\n");
        auto process = std::make_unique<ChildProcess>(ORVX_TINYPROXY,
                                                      std::vector<std::string>{"-d", "-c", config});
        process->awaitOutput("Accepting connections");
        return process;
    });
}

}  // namespace orvx::testing
