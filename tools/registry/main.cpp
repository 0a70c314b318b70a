// The program orvx-registry: reads the options, prints the address, and stops on a signal. A
// failure is one line on stderr and the exit status 125, as with orvx-announce.
// The registry runs on a thread of its own, while the main thread waits for a signal. The signals
// are blocked before the first further thread starts, so that only sigwait() receives them. The
// look-up of the host comes before that, where a signal ends the process. Both threads notify the
// service manager; a lock guards what it could not be told yet.

#include <orvx/utility/Mutex.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/system/system_error.hpp>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <functional>
#include <future>
#include <iostream>
#include <regex>
#include <string>
#include <string_view>
#include <thread>

#include "Commands.h"
#include "DecimalNumber.h"
#include "EmptyValue.h"
#include "EtcdClient.h"
#include "FileContent.h"
#include "LineStream.h"
#include "RegistryServer.h"
#include "ServiceManager.h"
#include "StandardStreams.h"

namespace {

using orvx::registry::FileError;
using orvx::registry::LineStream;
using orvx::registry::RegistryOptions;
using orvx::registry::RegistryServer;
using orvx::tools::faultOfDecimal;
using orvx::tools::ServiceManager;
using orvx::utility::Mutex;
using orvx::utility::MutexLock;

// The exit status that env(1) and timeout(1) use for their own failures.
constexpr int kOwnFailure = 125;

// The server needs at most four seconds: two for its connections and two for etcd.
constexpr std::chrono::seconds kLongestEnd{5};

// etcd accepts requests of up to 1.5 MiB, which contain the body in base64.
constexpr std::uint64_t kMaxBodyAtEtcd = 1'048'576;

int fail(const std::string& why) {
    std::cerr << "orvx-registry: " << why << std::endl;
    return kOwnFailure;
}

/// Hides users and passwords in the URLs of a text.
std::string withoutPasswords(const std::string& text) {
    return std::regex_replace(text, std::regex("://[^ ]*@"), "://***@");
}

/// Blocks the signals that serve() waits for. SIGHUP is one of them if there are files to read
/// again, or if a service manager may send it; otherwise it ends the process.
sigset_t prepareSignals(const RegistryOptions& options, bool isManaged) {
    std::signal(SIGXFSZ, SIG_IGN);  // then a write beyond the limit returns an error
    std::signal(SIGPIPE, SIG_IGN);  // then a write to a closed pipe returns an error
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGALRM);
    if (!options.tls.certificate.empty() || !options.tokens.empty() || isManaged) {
        sigaddset(&signals, SIGHUP);
    }
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    return signals;
}

/// The address of the host. SIGINT and SIGTERM, which are blocked otherwise, end the process
/// meanwhile: nothing can interrupt a look-up.
std::string addressOf(const RegistryOptions& options) {
    sigset_t ends;
    sigemptyset(&ends);
    sigaddset(&ends, SIGINT);
    sigaddset(&ends, SIGTERM);
    const auto end = [](int) { std::_Exit(0); };
    std::signal(SIGINT, end);
    std::signal(SIGTERM, end);
    pthread_sigmask(SIG_UNBLOCK, &ends, nullptr);
    boost::asio::io_context context;
    const auto found =
        boost::asio::ip::tcp::resolver(context).resolve(options.host, std::to_string(options.port));
    pthread_sigmask(SIG_BLOCK, &ends, nullptr);
    return found.begin()->endpoint().address().to_string();
}

/// Tells a service manager of readiness. If its queue is full, SIGALRM arrives a second later, and
/// is to be answered with repeat().
/// Thread-safe.
class Readiness {
  public:
    explicit Readiness(const ServiceManager& manager) : manager_(manager) {}

    void tell(const std::string& state) ORVX_EXCLUDES(mutex_) {
        const MutexLock lock(mutex_);
        untold_ = state;
        tellLocked();
    }
    void repeat() ORVX_EXCLUDES(mutex_) {
        const MutexLock lock(mutex_);
        tellLocked();
    }

  private:
    void tellLocked() ORVX_REQUIRES(mutex_) {
        if (!untold_.empty() && !manager_.notify(untold_)) {
            ::alarm(1);
            return;
        }
        untold_.clear();
    }

    const ServiceManager& manager_;
    Mutex mutex_;
    std::string untold_ ORVX_GUARDED_BY(mutex_);
};

void serve(RegistryOptions options) {
    if (!options.etcd.empty() && options.maxBody > kMaxBodyAtEtcd) {
        throw std::runtime_error("with --etcd the largest --max-body is " +
                                 std::to_string(kMaxBodyAtEtcd));
    }
    const ServiceManager manager;
    const sigset_t signals = prepareSignals(options, manager.isThere());
    options.host = addressOf(options);
    // They outlive the server, and its thread stops for no reader.
    const LineStream errors(std::cerr, STDERR_FILENO, LineStream::Loss::IsIgnored);
    const LineStream output(std::cout, STDOUT_FILENO, LineStream::Loss::IsFailure);
    RegistryServer server(options);
    std::cout << "orvx-registry listening on " << server.url() << std::endl;
    if (!options.etcd.empty()) {
        manager.notify("STATUS=waiting for etcd");
    }
    Readiness readiness(manager);
    bool isReady = false;  // used by the server's thread only
    server.onReady([&](bool isCurrent) {
        isReady = true;
        readiness.tell("READY=1\nSTATUS=listening on " + server.url() +
                       (isCurrent ? "" : ", without etcd"));
    });
    std::promise<void> ended;
    std::thread thread([&] {
        server.run();
        ended.set_value();
    });
    int signal = 0;
    while (sigwait(&signals, &signal) == 0 && (signal == SIGHUP || signal == SIGALRM)) {
        if (signal == SIGALRM) {
            readiness.repeat();
            continue;
        }
        manager.notify("RELOADING=1");
        server.reload([&] {
            if (isReady) {
                readiness.tell("READY=1");
            }
        });
    }
    manager.notify("STOPPING=1");
    server.stop();
    if (!options.etcd.empty() &&
        ended.get_future().wait_for(kLongestEnd) == std::future_status::timeout) {
        // Only a lookup of a name is under way, which nothing can interrupt. Readers of the logs
        // had as long to take their lines.
        std::_Exit(0);
    }
    thread.join();
}

/// The end of the program's own arguments: the arguments of the command of `watch --exec` follow.
char** endOfOptions(const CLI::App& app, char** begin, char** end) {
    const CLI::App* const watch = app.get_subcommand("watch");
    char** word = std::find(begin, end, std::string_view("--exec"));
    for (; word != end && **word == '-'; ++word) {
        const CLI::Option* const option = watch->get_option_no_throw(*word);
        if (option != nullptr && option->get_items_expected_max() > 0 && word + 1 != end) {
            ++word;
        }
    }
    return word;
}

/// Refuses empty values, such as that of an unset variable, which would switch off the option's
/// purpose. A check() of CLI11 would not be called for an option whose value is optional.
void refuseEmptyValues(const CLI::App& app) {
    for (const CLI::Option* const option : app.get_options()) {
        const auto& values = option->results();
        if (!option->get_positional() && std::count(values.begin(), values.end(), "") > 0) {
            throw CLI::ValidationError(option->get_name(), "the value is empty");
        }
    }
    for (const CLI::App* const command : app.get_subcommands()) {
        refuseEmptyValues(*command);
    }
}

/// Refuses options of the server with a command, which would ignore them: `--port 9500 rm` would
/// remove entries at port 8500.
void refuseOptionsOfServer(const CLI::App& app) {
    if (app.get_subcommands().empty()) {
        return;
    }
    for (const CLI::Option* const option : app.get_options()) {
        if (option->count() > 0) {
            throw CLI::ValidationError(option->get_name(), "has no meaning with a command");
        }
    }
}

/// Excludes options for data of one process, because replicas share the entries.
void addEtcdOptions(CLI::App& app, RegistryOptions& options) {
    auto* etcd = app.add_option_function<std::string>(
        "--etcd",
        [&options](const std::string& list) {
            try {
                options.etcd = orvx::registry::parseMembers(list);
            } catch (const std::invalid_argument& error) {
                throw CLI::ValidationError("--etcd", error.what());
            }
        },
        "Members of etcd, as http://host:2379 or https://, separated by commas: they keep the "
        "entries for all replicas");
    app.add_option("--etcd-prefix", options.etcdPrefix, "What the keys at etcd begin with")
        ->capture_default_str()
        ->needs(etcd);
    app.add_option("--etcd-ca", options.etcdTls.authority,
                   "File with the authority of etcd's members, in PEM, in place of the system's")
        ->needs(etcd);
    auto* certificate = app.add_option("--etcd-cert", options.etcdTls.certificate,
                                       "File with the certificate that is shown to etcd, in PEM");
    certificate->needs(etcd);
    app.add_option("--etcd-key", options.etcdTls.key, "File with its key, if not in the same file")
        ->needs(certificate);
    for (const char* option : {"--store", "--script", "--admin"}) {
        etcd->excludes(app.get_option(option));
    }
}

void addOptions(CLI::App& app, RegistryOptions& options) {
    app.set_version_flag("--version", "orvx-registry " ORVX_VERSION, "Print the version and end");
    app.add_option("--host", options.host, "Address or name to listen at")->capture_default_str();
    app.add_option("--port", options.port, "Port to listen at, 0 for any free one")
        ->check(faultOfDecimal)
        ->capture_default_str();
    app.add_flag("--open", options.open,
                 "Let anybody announce who reaches a host that is not loopback");
    auto* certificate = app.add_option("--tls-cert", options.tls.certificate,
                                       "File with the certificate, in PEM: speak TLS only");
    app.add_option("--tls-key", options.tls.key, "File with its key, if not in the same file")
        ->needs(certificate);
    app.add_option("--client-ca", options.tls.authority,
                   "File with the authority of the clients, which must show a certificate")
        ->needs(certificate);
    app.add_option("--tokens", options.tokens,
                   "File with tokens, one JSON object a line; every request needs one");
    app.add_option("--rate", options.rate,
                   "Most requests a second of one client address, 0 for no limit")
        ->check(faultOfDecimal)
        ->check(CLI::Range(0U, 1U << 20U))
        ->capture_default_str();
    app.add_option("--audit", options.audit,
                   "One line of JSON for each change, to stdout or appended to that file")
        ->expected(0, 1)
        ->default_str("-");
    app.add_option("--max-body", options.maxBody, "Largest body of a request, in bytes")
        ->check(faultOfDecimal)
        ->check(CLI::Range(std::uint64_t{1}, std::uint64_t{1} << 30))
        ->capture_default_str();
    app.add_option("--max-connections", options.maxConnections,
                   "Most connections at once; a further one ends another")
        ->check(faultOfDecimal)
        ->check(CLI::Range(std::size_t{1}, std::size_t{1} << 20))
        ->capture_default_str();
    app.add_option("--max-entries", options.maxEntries, "Most entries; a further one is refused")
        ->check(faultOfDecimal)
        ->check(CLI::Range(std::size_t{1}, std::size_t{1} << 24))
        ->capture_default_str();
    app.add_option_function<std::uint32_t>(
           "--ttl", [&options](std::uint32_t ttl) { options.ttl = std::chrono::seconds(ttl); },
           "Seconds after which an entry that is neither put nor checked expires, 0 for never")
        ->check(faultOfDecimal);
    app.add_option("--store", options.store, "File that keeps the entries over a restart");
    app.add_option("--script", options.script, "File with faults, one JSON object a line");
    app.add_flag("--admin", options.admin, "Take faults at /-/faults while it runs");
    app.add_option("--log", options.log,
                   "One line for each request, to stdout or appended to that file")
        ->expected(0, 1)
        ->default_str("-");
    addEtcdOptions(app, options);
}

}  // namespace

int main(int argc, char** argv) {
    orvx::tools::occupyStandardStreams();
    RegistryOptions options;
    CLI::App app("A small HTTP registry to develop and test against.", "orvx-registry");
    addOptions(app, options);
    std::function<int()> run = [&options] {
        serve(options);
        return 0;
    };
    orvx::registry::addCommands(app, run);
    try {
        const auto empty =
            orvx::tools::optionWithEmptyValue(argv + 1, endOfOptions(app, argv + 1, argv + argc));
        if (!empty.empty()) {
            throw CLI::ValidationError(empty, "the value is empty");
        }
        app.parse(argc, argv);
        refuseEmptyValues(app);
        refuseOptionsOfServer(app);
        return run();
    } catch (const CLI::Success& answered) {
        return app.exit(answered);
    } catch (const CLI::ParseError& error) {
        return fail(withoutPasswords(error.what()) + " (orvx-registry --help lists the options)");
    } catch (const FileError& error) {
        return fail(error.what());
    } catch (const boost::system::system_error& error) {  // its what() may name a line of Boost
        return fail("cannot listen at " + options.host + " port " + std::to_string(options.port) +
                    ": " + error.code().message());
    } catch (const std::exception& error) {
        return fail(error.what());
    }
}
