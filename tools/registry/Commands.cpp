// The commands that send requests to a registry: their options and their output. Texts from a
// registry are printed as ASCII JSON, so that they cannot control a terminal.
// Runs on the main thread; a CommandRunner has a thread of its own. There is no lock.

#include "Commands.h"

#include <CLI/CLI.hpp>
#include <boost/beast/http/status.hpp>
#include <cctype>
#include <charconv>
#include <chrono>
#include <cstdint>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "Client.h"
#include "CommandRunner.h"
#include "GrowingPause.h"
#include "Json.h"
#include "WatchedEntries.h"

namespace orvx::registry {

namespace http = boost::beast::http;
using nlohmann::json;

namespace {

constexpr int kNotFound = 1;
constexpr const char* kPage = "1000";
constexpr const char* kChanges = "/-/watch?checks=no";

struct Arguments {
    ClientOptions client{};
    bool asJson = false;
    std::string name{};
    std::string category{};
    std::string version{};
    std::vector<std::string> uuids{};
    bool executes = false;
    std::vector<std::string> command{};  ///< with its arguments
};

std::string ascii(const json& value) {
    return value.dump(-1, ' ', true, json::error_handler_t::replace);
}

/// Throws a std::runtime_error that contains no byte of the text; nlohmann's exception would
/// contain some.
json parse(std::string_view text) {
    json value = parseJson(text);
    if (value.is_discarded()) {
        throw std::runtime_error("the registry answers with something that is not JSON");
    }
    return value;
}

/// Calls a function that uses JSON of the registry. Throws a std::runtime_error that contains no
/// byte of the JSON if it has an unexpected form.
template <typename Call>
auto withExpectedForm(const Call& call) {
    try {
        return call();
    } catch (const json::exception&) {
        throw std::runtime_error("the registry answers with JSON that is not as expected");
    }
}

/// Throws a std::runtime_error if the output so far cannot be written.
void flushOutput() {
    if (!std::cout.flush()) {
        throw std::runtime_error("stdout cannot be written");
    }
}

std::string fieldText(const json& object, const char* field) {
    const auto value = object.find(field);
    if (value == object.end() || value->is_null()) {
        return "-";
    }
    const std::string text = ascii(*value);
    return value->is_string() && text.size() > 2 ? text.substr(1, text.size() - 2) : text;
}

/// One line: uuid, address, path, name.
std::string lineOf(const json& entry) {
    const json& service = entry.at("service");
    const json empty = json::object();
    const json& fields = service.is_object() ? service : empty;
    return fieldText(entry, "uuid") + "  " + fieldText(fields, "host") + ':' +
           fieldText(fields, "port") + "  " + fieldText(entry, "path") + "  " +
           fieldText(fields, "name");
}

std::string escaped(const std::string& text) {
    static constexpr char kDigits[] = "0123456789ABCDEF";
    std::string safe;
    for (const char letter : text) {
        const auto byte = static_cast<unsigned char>(letter);
        const bool isPlain = byte < 0x80 && (std::isalnum(byte) != 0 || letter == '-' ||
                                             letter == '.' || letter == '_');
        safe += isPlain ? std::string(1, letter)
                        : std::string{'%', kDigits[byte / 16U], kDigits[byte % 16U]};
    }
    return safe;
}

/// Throws a std::runtime_error for an answer other than 200.
const Response& expectOk(const Response& response) {
    if (response.result() == http::status::ok) {
        return response;
    }
    const json body = parseJson(response.body());
    const json why = body.is_object() ? body.value("error", json()) : json();
    throw std::runtime_error("the registry answers " + std::to_string(response.result_int()) +
                             (why.is_string() ? ": " + ascii(why) : ""));
}

int list(const Arguments& arguments) {
    Client client(arguments.client);
    std::string query = std::string("/?limit=") + kPage;
    const auto add = [&query](const char* field, const std::string& value) {
        query += value.empty() ? "" : std::string("&") + field + '=' + escaped(value);
    };
    add("name", arguments.name);
    add("category", arguments.category);
    add("version", arguments.version);
    std::string after;
    do {
        const json page =
            parse(expectOk(client.ask(http::verb::get,
                                      query + (after.empty() ? "" : "&after=" + escaped(after))))
                      .body());
        for (const json& entry : page.at("entries")) {
            std::cout << (arguments.asJson ? ascii(entry) : lineOf(entry)) << '\n';
        }
        flushOutput();
        const std::string next = page.value("next", "");
        if (!next.empty() && next == after) {
            throw std::runtime_error("the registry answers with the same page again");
        }
        after = next;
    } while (!after.empty());
    return 0;
}

/// Sends a request for each uuid. A uuid without an entry is reported on stderr, and the exit
/// status is then 1.
int requestEach(const Arguments& arguments, http::verb method) {
    Client client(arguments.client);
    int status = 0;
    for (const std::string& uuid : arguments.uuids) {
        // With an empty uuid the target would be the list.
        const Response response = uuid.empty() ? Response(http::status::not_found, 11)
                                               : client.ask(method, '/' + escaped(uuid));
        if (response.result() == http::status::not_found) {
            std::cerr << "orvx-registry: there is no entry " << ascii(uuid) << std::endl;
            status = kNotFound;
            continue;
        }
        const json entry = parse(expectOk(response).body());
        entry.at("uuid");
        entry.at("service");
        const bool isLine = !arguments.asJson && method == http::verb::delete_;
        std::cout << (isLine ? lineOf(entry)
                             : entry.dump(arguments.asJson ? -1 : 2, ' ', true,
                                          json::error_handler_t::replace))
                  << '\n';
        flushOutput();
    }
    return status;
}

void printEvent(std::string_view name, const json& value, bool asJson) {
    if (asJson) {
        std::cout << ascii({{"event", name}, {"data", value}}) << '\n';
    } else if (name == "put") {
        std::cout << "put      " << lineOf(value) << '\n';
    } else if (name == "removed") {
        std::cout << "removed  " << fieldText(value, "uuid") << '\n';
    }
    flushOutput();
}

using TakeEvent = std::function<void(std::string_view name, std::string_view data)>;

/// Follows the stream and reconnects automatically: after a second if the registry cannot be
/// reached or sends an invalid event, after a growing pause if it refuses. Throws the failures
/// before the first event, and the exceptions of `take` if stdout has failed.
[[noreturn]] void follow(const ClientOptions& options, const std::string& target,
                         const TakeEvent& take) {
    std::string lastId;
    bool hasBegun = false;
    std::string reported;
    GrowingPause refused;
    for (;;) {
        std::chrono::seconds pause(1);
        try {
            // A new client reads the files of TLS again, and that of the token unless it is a pipe.
            const auto refusal = Client(options).watch(
                target, lastId, [&](std::string_view name, std::string_view data) {
                    try {
                        withExpectedForm([&] { take(name, data); });
                    } catch (...) {
                        lastId
                            .clear();  // the event had no effect, so the next stream must repeat it
                        throw;
                    }
                    hasBegun = true;
                    reported.clear();
                    refused.reset();
                });
            if (refusal) {
                pause = refused.next();
                if (hasBegun || refusal->result() != http::status::too_many_requests) {
                    expectOk(*refusal);
                }
            }
        } catch (const std::runtime_error& error) {
            if (!hasBegun || !std::cout) {
                throw;
            }
            if (error.what() != reported) {
                reported = error.what();
                std::cerr << "orvx-registry: " + reported + '\n' << std::flush;
            }
        }
        std::this_thread::sleep_for(pause);
    }
}

/// The pause that the registry requests; 0: none.
std::chrono::seconds retryAfter(const Response& response) {
    const auto text = response[http::field::retry_after];
    std::uint32_t seconds = 0;
    std::from_chars(text.data(), text.data() + text.size(), seconds);
    return std::chrono::seconds(seconds);
}

/// Fetches entries over one connection, and makes a new one after a failure. Reports a failure on
/// stderr unless the previous failure was the same.
class EntryFetcher {
  public:
    explicit EntryFetcher(const ClientOptions& options) : options_(options) {}

    /// Empty: the entry is gone. Throws a FetchFailure.
    std::optional<json> fetch(const std::string& uuid) {
        std::chrono::seconds pause(0);
        try {
            if (!client_) {
                client_.emplace(options_);
            }
            const Response response = client_->ask(http::verb::get, '/' + escaped(uuid));
            if (response.result() == http::status::not_found) {
                return std::nullopt;
            }
            pause = retryAfter(response);
            return withExpectedForm([&] {
                json entry = parse(expectOk(response).body());
                entry.at("path");
                entry.at("service").get_ref<const json::object_t&>();
                return entry;
            });
        } catch (const std::runtime_error& error) {
            disconnect();
            if (error.what() != reported_) {
                reported_ = error.what();
                std::cerr << "orvx-registry: " + reported_ + '\n' << std::flush;
            }
            throw FetchFailure(error.what(), pause);
        }
    }
    void disconnect() { client_.reset(); }
    /// Makes the next failure be reported even if it equals the last one.
    void clearReported() { reported_.clear(); }

  private:
    const ClientOptions& options_;
    std::optional<Client> client_;
    std::string reported_{};
};

/// Runs the command with the list of the matching entries, and again whenever the list changes.
[[noreturn]] void execute(const Arguments& arguments) {
    const auto given = [](const std::string& value) {
        return value.empty() ? std::nullopt : std::optional(value);
    };
    EntryFetcher fetcher(arguments.client);
    WatchedEntries entries(
        {given(arguments.name), given(arguments.category), given(arguments.version)},
        [&fetcher](const std::string& uuid) { return fetcher.fetch(uuid); });
    CommandRunner runner(arguments.command);
    follow(arguments.client, kChanges, [&](std::string_view name, std::string_view data) {
        if (entries.apply(name, parse(data))) {
            runner.submit(entries.text());
        }
        if (name == "state") {
            fetcher.disconnect();  // the registry would end the idle connection
        }
        if (!entries.isWaiting()) {
            fetcher.clearReported();
        }
    });
}

/// Finds the entries that were known before a new list and are not in it: they vanished while there
/// was no stream, and no event tells of them.
class KnownUuids {
  public:
    /// Returns the uuids that turn out to have vanished.
    std::set<std::string> apply(std::string_view event, const json& data) {
        if (event == "list") {
            unlisted_.merge(known_);  // a list that broke off may precede this one
            known_.clear();
        } else if (event == "put") {
            unlisted_.erase(*known_.insert(fieldText(data, "uuid")).first);
        } else if (event == "removed") {
            known_.erase(fieldText(data, "uuid"));
            unlisted_.erase(fieldText(data, "uuid"));
        } else if (event == "listed") {
            return std::exchange(unlisted_, {});
        }
        return {};
    }

  private:
    std::set<std::string> known_{};
    std::set<std::string> unlisted_{};  // known before the list that is being received
};

[[noreturn]] int watch(const Arguments& arguments) {
    if (arguments.executes) {
        execute(arguments);
    }
    // The JSON output has all events. The lines only show puts and removals, so they need no
    // checks.
    KnownUuids known;
    follow(arguments.client, arguments.asJson ? "/-/watch" : kChanges,
           [&](std::string_view name, std::string_view data) {
               const json value = parse(data);
               printEvent(name, value, arguments.asJson);
               if (!arguments.asJson) {
                   for (const std::string& uuid : known.apply(name, value)) {
                       printEvent("removed", {{"uuid", uuid}}, false);
                   }
               }
           });
}

template <typename Command>
int runCommand(const Command& command, Arguments& arguments) {
    readTokenOfPipe(arguments.client);
    return withExpectedForm([&] { return command(arguments); });
}

/// Everything after the command's name is its argument. Only options may precede the command.
void setCommand(Arguments& arguments, const CLI::App& watched) {
    arguments.command = watched.remaining();
    const bool isCommand = !arguments.command.empty() && arguments.command[0].rfind('-', 0) != 0;
    if (arguments.executes && arguments.command.empty()) {
        throw CLI::ArgumentMismatch("--exec: the command is missing");
    }
    if (arguments.executes != isCommand || (!isCommand && !arguments.command.empty())) {
        throw CLI::ExtrasError(watched.get_name(), arguments.command);
    }
}

void addClientOptions(CLI::App& command, Arguments& arguments) {
    ClientOptions& client = arguments.client;
    command.add_option("--registry", client.url, "Address of the registry")
        ->envname("ORVX_REGISTRY")
        ->capture_default_str();
    command.add_option("--token-file", client.tokenFile, "File with the token that is shown")
        ->envname("ORVX_TOKEN_FILE");
    command.add_option("--ca-file", client.authority, "File with the authority of the registry");
    auto* own = command.add_option("--client-cert", client.own.certificate,
                                   "File with the certificate that is shown");
    command
        .add_option("--client-key", client.own.key, "File with its key, if not in the same file")
        ->needs(own);
    command.add_flag("--json", arguments.asJson, "One JSON object a line");
}

}  // namespace

void addCommands(CLI::App& app, std::function<int()>& run) {
    const auto arguments = std::make_shared<Arguments>();
    const auto add = [&](const char* name, const char* text, auto command) {
        CLI::App* const added = app.add_subcommand(name, text);
        addClientOptions(*added, *arguments);
        added->callback(
            [&run, arguments, command] { run = [=] { return runCommand(command, *arguments); }; });
        return added;
    };
    const auto addFilters = [&](CLI::App& filtered) {
        return std::vector{
            filtered.add_option("--name", arguments->name, "Only services of that name"),
            filtered.add_option("--category", arguments->category,
                                "Only services of that category"),
            filtered.add_option("--version", arguments->version, "Only services of that version")};
    };
    addFilters(*add("list", "Print the entries of a registry that runs", list));
    for (auto* const each :
         {add("get", "Print entries of a registry that runs",
              [](const Arguments& given) { return requestEach(given, http::verb::get); }),
          add("rm", "Remove entries of a registry that runs",
              [](const Arguments& given) { return requestEach(given, http::verb::delete_); })}) {
        each->add_option("uuid", arguments->uuids, "Names of the entries")->required();
    }
    CLI::App* const watched = add("watch", "Print what changes at a registry that runs", watch);
    auto* const executes = watched->add_flag(
        "--exec", arguments->executes,
        "Run the command that follows, with its arguments, with the list on stdin, at each change");
    for (CLI::Option* const filter : addFilters(*watched)) {
        filter->needs(executes);
    }
    watched->prefix_command();
    watched->callback([&run, arguments, watched] {
        setCommand(*arguments, *watched);
        run = [arguments] { return runCommand(watch, *arguments); };
    });
    app.require_subcommand(0, 1);
}

}  // namespace orvx::registry
