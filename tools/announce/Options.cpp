// Parses the command line: options come before "--", the command after it.
// Runs on the main thread, before everything else; there is no lock.

#include "Options.h"

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cctype>
#include <cmath>
#include <filesystem>
#include <iostream>
#include <map>

#include "DecimalNumber.h"
#include "EmptyValue.h"
#include "ExitCodes.h"
#include "Nearest.h"
#include "RegistryUrl.h"
#include "ServiceDescriptions.h"

namespace orvx::announce {

namespace {

using nlohmann::json;
using std::chrono::milliseconds;

void addDuration(CLI::App& app, const std::string& name, milliseconds& target,
                 const std::string& description) {
    app.add_option_function<double>(
           name,
           [&target, name](double seconds) {
               if (std::isnan(seconds)) {
                   throw UsageError(name + ": not a number");
               }
               target = milliseconds(static_cast<milliseconds::rep>(seconds * 1000));
           },
           description)
        ->check(CLI::Range(0.001, 86400.0))
        ->type_name("SECONDS")
        ->default_str(json(inSeconds(target)).dump());
}

void addRegistry(CLI::App& app, RegistryOptions& registry) {
    app.add_option("--registry", registry.url, "Where the registry is, http(s)://host[:port]")
        ->required();
    app.add_option_function<unsigned>(
           "--check-interval",
           [&](unsigned seconds) { registry.checkInterval = std::chrono::seconds(seconds); },
           "From one check of the entry to the next")
        ->check(tools::faultOfDecimal)
        ->check(CLI::Range(1U, 86400U))
        ->type_name("SECONDS")
        ->default_str("10");
    addDuration(app, "--check-timeout", registry.checkTimeout,
                "How long a check waits for its answer");
    addDuration(app, "--retry-interval", registry.retryInterval,
                "Step of the back-off while the registry does not answer");
    app.add_option("--ca-file", registry.authorityFile, "Authorities to trust, PEM")
        ->check(CLI::ExistingPath);
    auto* certificate = app.add_option("--client-cert", registry.clientCertificateFile,
                                       "The client's certificate, PEM")
                            ->check(CLI::ExistingPath);
    app.add_option("--client-key", registry.clientKeyFile, "The client's key, PEM")
        ->check(CLI::ExistingPath)
        ->needs(certificate);
    app.add_option("--token-file", registry.tokenFile,
                   "Holds the token to show; SIGHUP: read again")
        ->check(CLI::ExistingPath);
    auto* proxy = app.add_option("--proxy", registry.proxy, "HTTP proxy, http://host:port");
    app.add_option("--unix-socket", registry.unixSocket, "Socket of the registry")->excludes(proxy);
}

void addServices(CLI::App& app, ServiceOptions& service) {
    auto* from = app.add_option("--from", service.file, "JSON file with a list of descriptions");
    auto* name = app.add_option("--name", service.name, "Name of the service")->excludes(from);
    const auto add = [&](const char* option, auto& target, const char* text) {
        return app.add_option(option, target, text)->excludes(from)->needs(name);
    };
    add("--port", service.port, "Its port")
        ->check(tools::faultOfDecimal)
        ->check(CLI::Range(1U, 65535U));
    app.add_option("--host", service.host,
                   "Where others reach it (default: this machine's name, or 127.0.0.1 when the "
                   "registry is there)");
    add("--service-version", service.version, "Its version");
    add("--category", service.categories, "A category; may be repeated")->allow_extra_args(false);
    add("--privilege", service.privileges, "A privilege; may be repeated")->allow_extra_args(false);
    add("--description", service.description, "What it is, for people");
    add("--uri", service.uri, "Path of its entry at the registry (default: /<name>/<host>:<port>)");
}

/// Adds two options that exclude each other and `plain`.
void addProbe(CLI::App& app, const char* http, const char* command, const std::string& effect,
              ProbeOptions& probe, CLI::Option* plain) {
    auto* path =
        app.add_option(http, probe.path, effect + " when GET of this path answers 200 to 399")
            ->excludes(plain)
            ->check([](const std::string& text) {
                const bool isEncoded = std::all_of(text.begin(), text.end(), [](char letter) {
                    return letter > ' ' && letter < '\x7f' && letter != '#';
                });
                return text.rfind('/', 0) != 0 ? "the path must begin with /"
                       : isEncoded             ? ""
                                               : "the path must be percent-encoded";
            })
            ->each([&](const std::string&) { probe.kind = ProbeOptions::Kind::Http; });
    app.add_option(command, probe.command, effect + " when this shell command succeeds")
        ->excludes(plain)
        ->excludes(path)
        ->each([&](const std::string&) { probe.kind = ProbeOptions::Kind::Command; });
}

void addReady(CLI::App& app, ReadyOptions& ready, bool hasCommand) {
    using Kind = ProbeOptions::Kind;
    ready.kind = hasCommand ? Kind::Tcp : Kind::None;
    auto* plain =
        app.add_option("--ready", ready.kind, "tcp: its port takes connections; none: at once")
            ->transform(CLI::CheckedTransformer(
                std::map<std::string, Kind>{{"tcp", Kind::Tcp}, {"none", Kind::None}}))
            ->option_text(
                "KIND=tcp|none (default: tcp with a command, otherwise none) "
                "Excludes: --ready-http --ready-command");
    addProbe(app, "--ready-http", "--ready-command", "Ready", ready, plain);
    addDuration(app, "--ready-timeout", ready.timeout, "How long to wait for that");
}

void addHealth(CLI::App& app, HealthOptions& health) {
    auto* tcp = app.add_flag_callback(
        "--health-tcp", [&] { health.kind = ProbeOptions::Kind::Tcp; },
        "Announced only while its port takes connections");
    addProbe(app, "--health-http", "--health-command", "Announced only", health, tcp);
    addDuration(app, "--health-interval", health.interval, "From one such attempt to the next");
    addDuration(app, "--health-timeout", health.timeout, "How long an attempt may take");
    const auto addCount = [&app](const char* name, unsigned& target, const char* text) {
        app.add_option(name, target, text)
            ->check(tools::faultOfDecimal)
            ->check(CLI::Range(1U, 1000U))
            ->capture_default_str();
    };
    addCount("--health-failures", health.failures, "Failures in a row until it is withdrawn");
    addCount("--health-successes", health.successes, "Successes in a row until it is announced");
}

/// Saving replaces the file: a device, for example, would be lost to all programs.
void checkStatusFile(const std::string& name) {
    std::error_code ignored;
    const auto status = std::filesystem::symlink_status(name, ignored);
    if (std::filesystem::exists(status) && !std::filesystem::is_regular_file(status)) {
        throw UsageError("--status-file: not a plain file: " + name);
    }
}

/// Adds an environment variable to each option that containers set: --token-file, ORVX_TOKEN_FILE.
void addEnvironment(CLI::App& app) {
    for (const char* name : {"--registry", "--ca-file", "--client-cert", "--client-key",
                             "--token-file", "--proxy", "--unix-socket", "--name", "--port",
                             "--host", "--service-version", "--uri", "--from", "--status-file"}) {
        std::string variable = std::string("ORVX_") + (name + 2);
        std::replace(variable.begin(), variable.end(), '-', '_');
        std::transform(variable.begin(), variable.end(), variable.begin(),
                       [](unsigned char letter) { return std::toupper(letter); });
        app.get_option(name)->envname(variable);
    }
}

/// The first word that is neither an option nor an option's value; empty if there is none.
std::string firstStrayWord(const CLI::App& app, char** begin, char** end) {
    for (char** word = begin; word != end; ++word) {
        std::string text = *word;
        if (text.empty() || text[0] != '-') {
            return text;
        }
        const CLI::Option* option = app.get_option_no_throw(text);
        if (option != nullptr && option->get_items_expected_max() > 0 && word + 1 != end) {
            ++word;
        }
    }
    return "";
}

/// Suggests how to correct an invalid command line.
std::string hint(const CLI::App& app, char** begin, char** end, bool hasCommand) {
    const std::string stray = firstStrayWord(app, begin, end);
    if (!stray.empty() && !hasCommand) {
        return "the command stands after --, as in: orvx-announce ... -- " + stray + " ...";
    }
    std::vector<std::string> names;
    for (const CLI::Option* option : app.get_options()) {
        names.push_back(option->get_name());
    }
    for (char** word = begin; word != end; ++word) {
        const std::string name = std::string(*word).substr(0, std::string(*word).find('='));
        if (name.rfind("--", 0) == 0 && app.get_option_no_throw(name) == nullptr) {
            return "is " + nearest(name, names) + " meant?";
        }
    }
    return "see orvx-announce --help";
}

void completeOptions(Options& options) {
    checkStatusFile(options.statusFile);
    parseRegistryUrl(options.registry);
    const auto& registry = options.registry;
    if (!registry.secure && !(registry.authorityFile + registry.clientCertificateFile).empty()) {
        throw UsageError("--ca-file and --client-cert need a registry with https");
    }
    options.services = readDescriptions(options.service, options.registry, Reading::Initial);
}

}  // namespace

Options parseOptions(int argc, char** argv) {
    char** const end = argv + argc;
    char** const dashes =
        std::find_if(argv, end, [](const char* text) { return std::string_view(text) == "--"; });
    Options options;
    if (dashes != end) {
        options.command.assign(dashes + 1, end);
    }
    CLI::App app("Announces services at a registry while a command runs, or until it is stopped.\n",
                 "orvx-announce");
    app.footer("The command and its arguments follow --. See man orvx-announce.");
    addServices(app, options.service);
    addRegistry(app, options.registry);
    addReady(app, options.ready, !options.command.empty());
    addHealth(app, options.health);
    app.add_option("--ready-host", options.probedHost,
                   "Where readiness and health are asked for (default: --host)");
    addDuration(app, "--withdraw-timeout", options.withdrawTimeout,
                "How long withdrawing may take before the command is stopped all the same");
    addDuration(app, "--stop-timeout", options.stopTimeout,
                "How long the command may take to end before it is killed");
    app.add_flag("--json", options.json, "Each line is a JSON object");
    app.add_option("--status-file", options.statusFile, "Keep the state in this JSON file");
    app.set_version_flag("--version", "orvx-announce " ORVX_VERSION,
                         "Tells this program's version");
    addEnvironment(app);
    try {
        if (const auto name = tools::optionWithEmptyValue(argv + 1, dashes); !name.empty()) {
            throw UsageError(name + ": the value is empty");
        }
        app.parse(static_cast<int>(dashes - argv), argv);
        for (const CLI::Option* const option : app.get_options()) {
            const auto& values = option->results();
            if (std::count(values.begin(), values.end(), "") > 0) {
                throw UsageError(option->get_name() + ": the value is empty");
            }
        }
        if (dashes != end && options.command.empty()) {
            throw UsageError("no command follows --");
        }
        completeOptions(options);
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == 0) {
            throw EarlyExit{app.exit(error)};
        }
        std::cerr << "orvx-announce: " << error.what() << "; "
                  << hint(app, argv + 1, dashes, dashes != end) << '\n';
        throw EarlyExit{kOwnFailure};
    } catch (const UsageError& error) {
        std::cerr << "orvx-announce: " << error.what() << '\n';
        throw EarlyExit{kOwnFailure};
    }
    return options;
}

}  // namespace orvx::announce
