// Tests the program: faults over real connections, the log, the store after a kill, entries that
// expire, and the files that it refuses.
// Everything runs on the test's thread; the program is a process of its own.
// There is no lock.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <boost/beast/http/status.hpp>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <fstream>
#include <iterator>
#include <map>
#include <optional>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "Paths.h"
#include "RegistryProcess.h"
#include "RunningRegistry.h"
#include "TemporaryFolder.h"

namespace orvx::registry {
namespace {

namespace http = boost::beast::http;
using nlohmann::json;
using namespace std::chrono_literals;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using ::testing::Not;
using Clock = std::chrono::steady_clock;

std::string contentOf(const std::string& path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

/// A FIFO that is read without waiting for a writer.
class OpenFile {
  public:
    OpenFile(const std::string& path, int flags)
        : descriptor_(::open(path.c_str(), flags | O_CLOEXEC)) {
        if (descriptor_ < 0) {
            throw std::system_error(errno, std::generic_category(), path);
        }
    }
    ~OpenFile() { ::close(descriptor_); }
    OpenFile(const OpenFile&) = delete;
    OpenFile& operator=(const OpenFile&) = delete;

    /// All up to that text. Throws after ten seconds without more.
    std::string readUntil(const std::string& text) const {
        std::string read;
        pollfd polled{descriptor_, POLLIN, 0};
        while (read.find(text) == std::string::npos) {
            std::array<char, 4'096> bytes{};
            if (::poll(&polled, 1, 10'000) != 1) {
                throw std::runtime_error("nothing was written for ten seconds");
            }
            const auto size = ::read(descriptor_, bytes.data(), bytes.size());
            read.append(bytes.data(), size > 0 ? static_cast<std::size_t>(size) : 0);
        }
        return read;
    }

  private:
    int descriptor_;
};

class TheTool : public ::testing::Test {
  protected:
    std::string write(const char* name, const std::string& text) const {
        std::ofstream(folder_ / name) << text;
        return folder_ / name;
    }

    static void expectRefusedAtStart(std::vector<std::string> arguments, const std::string& why) {
        arguments.insert(arguments.end(), {"--port", "0"});
        const auto result = RegistryProcess(arguments).wait();
        EXPECT_TRUE(WIFEXITED(result.status) && WEXITSTATUS(result.status) == 125);
        EXPECT_EQ(result.output, "");
        EXPECT_THAT(result.errors, MatchesRegex("orvx-registry: .*\n"));
        EXPECT_THAT(result.errors, HasSubstr(why));
    }

    const TemporaryFolder folder_;
};

RegistryOptions withAdmin() {
    RegistryOptions options;
    options.admin = true;
    return options;
}

void setFaults(RawConnection& connection, const std::string& text) {
    ASSERT_EQ(connection.ask(makeRequest("PUT", "/-/faults", text)).result(), http::status::ok);
}

TEST(AFaultOnAConnection, ResetsIt) {
    const RunningRegistry registry(withAdmin());
    RawConnection connection = registry.connect();
    setFaults(connection, R"({"fault":"reset","method":"PUT","requests":1})");
    EXPECT_THROW(connection.ask(makeRequest("PUT", "/a", "{}")), std::system_error);
    EXPECT_EQ(registry.connect().ask(makeRequest("GET", "/")).body(), R"({"entries":[]})");
    EXPECT_EQ(registry.connect().ask(makeRequest("PUT", "/a", "{}")).result(),
              http::status::created);
}

TEST(AFaultOnAConnection, DelaysItsAnswerAndNoOther) {
    const RunningRegistry registry(withAdmin());
    RawConnection slow = registry.connect();
    setFaults(slow, R"({"fault":"delay","milliseconds":300,"requests":1})");
    const auto begin = Clock::now();
    slow.send(makeRequest("PUT", "/a", "{}") + makeRequest("GET", "/"));
    RawConnection other = registry.connect();
    while (other.ask(makeRequest("GET", "/")).body() == R"({"entries":[]})") {
    }
    EXPECT_EQ(other.ask(makeRequest("PUT", "/b", "{}")).result(), http::status::created);
    EXPECT_EQ(slow.receive().result(), http::status::created);
    EXPECT_GE(Clock::now() - begin, 300ms);
    EXPECT_EQ(slow.receive().result(), http::status::ok);
}

TEST(AFaultOnAConnection, DoesNotDelayTheEndOfTheRegistry) {
    RunningRegistry registry(withAdmin());
    RawConnection connection = registry.connect();
    setFaults(connection, R"({"fault":"delay","milliseconds":600000})");
    connection.send(makeRequest("PUT", "/a", "{}"));
    RawConnection other = registry.connect();
    while (other.ask(makeRequest("GET", "/")).body() == R"({"entries":[]})") {
    }
    registry.stop();
    EXPECT_TRUE(connection.isClosedByPeer());
}

TEST(AFaultOnAConnection, CannotKeepOthersOut) {
    RegistryOptions options = withAdmin();
    options.maxConnections = 2;
    const RunningRegistry registry(options);
    RawConnection delayed = registry.connect();
    setFaults(delayed, R"({"fault":"delay","milliseconds":600000,"method":"PUT"})");
    delayed.send(makeRequest("PUT", "/a", "{}"));
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(registry.connect().ask(makeRequest("HEAD", "/")).result(), http::status::ok);
    }
}

TEST_F(TheTool, PlaysAScriptOfFaults) {
    const std::string script = write("script", R"(# the second check finds nothing
{"fault":"forget","method":"HEAD","skip":1}
{"fault":"status","status":503,"method":"PUT","requests":1}
)");
    RegistryProcess program({"--port", "0", "--script", script});
    RawConnection connection(program.port());
    EXPECT_EQ(connection.ask(makeRequest("PUT", "/a", "{}")).result(),
              http::status::service_unavailable);
    const auto response = connection.ask(makeRequest("PUT", "/a", "{}"));
    const std::string location(response[http::field::location]);
    EXPECT_EQ(connection.ask(makeRequest("HEAD", location)).result(), http::status::ok);
    EXPECT_EQ(connection.ask(makeRequest("HEAD", location)).result(), http::status::not_found);
    EXPECT_EQ(connection.ask(makeRequest("PUT", "/a", "{}")).result(), http::status::created);
}

TEST_F(TheTool, RefusesAScriptThatIsNotThereOrHasAMistake) {
    expectRefusedAtStart({"--script", folder_ / "none"}, "/none: it cannot be read");
    expectRefusedAtStart({"--script", write("script", "\n{\"fault\":\"delay\"}\n")},
                         "/script: line 2: \"milliseconds\" is missing");
}

TEST_F(TheTool, WritesALineForEachRequest) {
    RegistryProcess program({"--port", "0", "--log"});
    const auto port = program.port();
    RawConnection connection(port);
    connection.ask(makeRequest("PUT", "/a\"\\\xff", "{}"));
    connection.ask(makeRequest("HEAD", "/unknown"));
    RawConnection(port).ask("\x16\r\n\r\n");
    program.signal(SIGTERM);
    EXPECT_THAT(program.wait().output,
                MatchesRegex("orvx-registry listening on [^\n]*\n"
                             "127\\.0\\.0\\.1 - - \\[[0-9]+/[A-Z][a-z]+/[0-9:]+ [+-][0-9]+\\] "
                             "\"PUT /a\\\\x22\\\\x5c\\\\xff HTTP/1\\.1\" 201 [0-9]+\n"
                             "127\\.0\\.0\\.1 - - [^\n]* \"HEAD /unknown HTTP/1\\.1\" 404 -\n"
                             "127\\.0\\.0\\.1 - - [^\n]* \"-\" 400 [0-9]+\n"));
}

TEST_F(TheTool, LogsThatALivingPathWasPutForAnotherAddress) {
    RegistryProcess program({"--port", "0", "--log"});
    RawConnection connection(program.port());
    for (const char* host : {"10.0.0.1", "10.0.0.2", "10.0.0.2", "\u202e\""}) {
        const json body{{"host", host}, {"port", 8080}};
        connection.ask(makeRequest("PUT", "/echo", body.dump()));
    }
    program.signal(SIGTERM);
    EXPECT_THAT(program.wait().output,
                MatchesRegex("[^\n]*\n"
                             "[^\n]* 201 [0-9]+\n"
                             "[^\n]* 200 [0-9]+ \"moved from 10.0.0.1:8080 to 10.0.0.2:8080\"\n"
                             "[^\n]* 200 [0-9]+\n"
                             "[^\n]* 200 [0-9]+ \"moved from 10.0.0.2:8080 to "
                             "\\\\xe2\\\\x80\\\\xae\\\\x22:8080\"\n"));
}

TEST_F(TheTool, AppendsItsLogToAFile) {
    const std::string log = write("log", "before\n");
    RegistryProcess program({"--log", log, "--port", "0"});
    RawConnection(program.port()).ask(makeRequest("HEAD", "/"));
    program.signal(SIGTERM);
    EXPECT_THAT(program.wait().output, MatchesRegex("[^\n]*\n"));
    EXPECT_THAT(contentOf(log), MatchesRegex("before\n127[^\n]* \"HEAD / HTTP/1\\.1\" 200 -\n"));
    expectRefusedAtStart({"--log", folder_ / "none/log"}, "No such file or directory");
}

TEST_F(TheTool, CountsTheLinesThatAFullDiskDoesNotTake) {
    const std::string audit = folder_ / "audit";
    RegistryProcess program({"--port", "0", "--audit", audit});
    RawConnection connection(program.port());
    const rlimit noGrowth{0, RLIM_INFINITY};
    ASSERT_EQ(::prlimit(program.pid(), RLIMIT_FSIZE, &noGrowth, nullptr), 0);
    for (const char* path : {"/a", "/b"}) {
        EXPECT_EQ(connection.ask(makeRequest("PUT", path, "{}")).result(), http::status::created);
    }
    program.awaitErrors("orvx-registry: the audit log cannot be written\n");
    const rlimit growth{RLIM_INFINITY, RLIM_INFINITY};
    ASSERT_EQ(::prlimit(program.pid(), RLIMIT_FSIZE, &growth, nullptr), 0);
    connection.ask(makeRequest("PUT", "/c", "{}"));
    EXPECT_EQ(json::parse(contentOf(audit)).at("path"), "/c");
    EXPECT_THAT(connection.ask(makeRequest("GET", "/-/metrics")).body(),
                HasSubstr("orvx_registry_lost_log_lines_total{log=\"audit\"} 2\n"));
}

TEST_F(TheTool, HasItsEntriesAgainAfterItWasKilledAmongThousandsOfRequests) {
    const std::string store = folder_ / "store";
    std::vector<std::string> answered;
    {
        RegistryProcess program({"--port", "0", "--store", store});
        RawConnection connection(program.port());
        std::string requests;
        for (int i = 0; i < 2'000; ++i) {
            requests += makeRequest("PUT", "/" + std::to_string(i), R"({"name":"a"})");
        }
        connection.send(requests);
        for (int i = 0; i < 300; ++i) {
            answered.emplace_back(connection.receive()[http::field::location]);
        }
        program.signal(SIGKILL);
        program.wait();
    }
    RegistryProcess program({"--port", "0", "--store", store});
    RawConnection connection(program.port());
    for (const std::string& location : answered) {
        ASSERT_EQ(connection.ask(makeRequest("HEAD", location)).result(), http::status::ok);
    }
    EXPECT_EQ(connection.ask(makeRequest("PUT", "/0", "{}"))[http::field::location], answered[0]);
}

TEST_F(TheTool, SaysWhenItsStoreCannotBeWrittenAndChangesNothingThen) {
    RegistryProcess program({"--port", "0", "--store", folder_ / "store"});
    RawConnection connection(program.port());
    connection.ask(makeRequest("PUT", "/a", "{}"));
    const rlimit noGrowth{0, RLIM_INFINITY};
    ASSERT_EQ(::prlimit(program.pid(), RLIMIT_FSIZE, &noGrowth, nullptr), 0);
    const auto refused = connection.ask(makeRequest("PUT", "/b", "{}"));
    EXPECT_EQ(refused.result(), http::status::internal_server_error);
    EXPECT_THAT(refused.body(), HasSubstr("/store: "));
    program.awaitErrors("/store: ");
    const auto list = json::parse(connection.ask(makeRequest("GET", "/")).body());
    EXPECT_EQ(list.at("entries").size(), 1U);
    const rlimit growth{RLIM_INFINITY, RLIM_INFINITY};
    ASSERT_EQ(::prlimit(program.pid(), RLIMIT_FSIZE, &growth, nullptr), 0);
    EXPECT_EQ(connection.ask(makeRequest("PUT", "/b", "{}")).result(), http::status::created);
}

TEST_F(TheTool, AnswersAndTakesChecksWhileItsStoreCannotBeWrittenAndAnEntryIsDueToExpire) {
    RegistryProcess program({"--port", "0", "--store", folder_ / "store", "--ttl", "1"});
    RawConnection connection(program.port());
    const auto checked = connection.ask(makeRequest("PUT", "/checked", "{}"));
    connection.ask(makeRequest("PUT", "/dead", "{}"));
    const auto check = [&] {
        const std::string location(checked[http::field::location]);
        return connection.ask(makeRequest("HEAD", location)).result();
    };
    const rlimit noGrowth{0, RLIM_INFINITY};
    ASSERT_EQ(::prlimit(program.pid(), RLIMIT_FSIZE, &noGrowth, nullptr), 0);
    const auto end = std::chrono::steady_clock::now() + 1'500ms;
    while (std::chrono::steady_clock::now() < end) {
        ASSERT_EQ(check(), http::status::ok);
    }
    program.awaitErrors("nothing expires\n");
    EXPECT_EQ(connection.ask(makeRequest("GET", "/-/health")).result(), http::status::ok);
    const rlimit growth{RLIM_INFINITY, RLIM_INFINITY};
    ASSERT_EQ(::prlimit(program.pid(), RLIMIT_FSIZE, &growth, nullptr), 0);
    const auto countEntries = [&] {
        EXPECT_EQ(check(), http::status::ok);
        return json::parse(connection.ask(makeRequest("GET", "/")).body()).at("entries").size();
    };
    while (countEntries() != 1) {
    }
}

// If the fault remained, no check would succeed until the store can be written.
TEST_F(TheTool, FailsOneRequestByAForgetThatItsStoreCannotWrite) {
    RegistryProcess program({"--port", "0", "--store", folder_ / "store", "--admin"});
    RawConnection connection(program.port());
    const auto put = connection.ask(makeRequest("PUT", "/a", "{}"));
    connection.ask(makeRequest("PUT", "/-/faults", R"({"fault":"forget","method":"HEAD"})"));
    const rlimit noGrowth{0, RLIM_INFINITY};
    ASSERT_EQ(::prlimit(program.pid(), RLIMIT_FSIZE, &noGrowth, nullptr), 0);
    const std::string check = makeRequest("HEAD", std::string(put[http::field::location]));
    EXPECT_EQ(connection.ask(check).result(), http::status::internal_server_error);
    EXPECT_EQ(connection.ask(check).result(), http::status::ok);
    EXPECT_EQ(connection.ask(makeRequest("GET", "/-/faults")).body(), R"({"faults":[]})");
}

TEST_F(TheTool, GoesOnWhenTheReaderOfItsLogHasEnded) {
    const std::string fifo = folder_ / "fifo";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    std::optional<OpenFile> reader(std::in_place, fifo, O_RDONLY | O_NONBLOCK);
    ChildProcess program(
        "/bin/sh", {"-c", "exec \"$0\" --port 0 --log >\"$1\"", RegistryProcess::path(), fifo});
    const std::string line = reader->readUntil("\n");
    const auto port = static_cast<std::uint16_t>(std::stoi(line.substr(line.rfind(':') + 1)));
    reader.reset();
    RawConnection connection(port);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(connection.ask(makeRequest("HEAD", "/")).result(), http::status::ok);
    }
    program.awaitErrors("the log cannot be written\n");
}

TEST_F(TheTool, AnswersWhileNobodyReadsItsLogAndCountsTheLinesThatItDrops) {
    RegistryProcess program({"--port", "0", "--log"});
    RawConnection connection(program.port());
    constexpr int kRequests = 100;  // their lines are twice as long as the pipe and the queue
    const std::string filler(7'000, 'x');
    for (int i = 0; i < kRequests; ++i) {
        const std::string target = '/' + std::to_string(i) + '-' + filler;
        EXPECT_EQ(connection.ask(makeRequest("HEAD", target)).result(), http::status::not_found);
    }
    const std::string metrics = connection.ask(makeRequest("GET", "/-/metrics")).body();
    const std::string& output = program.awaitOutput(", nobody read them\n");
    const std::regex whole(
        "(orvx-registry listening on .*)|(.* \"HEAD /([0-9]+)- .*)|"
        "(orvx-registry: lines dropped: ([0-9]+), nobody read them)");
    std::istringstream lines(output);
    int written = 0;
    int dropped = 0;
    for (std::string line; std::getline(lines, line);) {
        if (const auto at = line.find(filler); at != std::string::npos) {
            line.erase(at, filler.size());  // std::regex recurses for each character
        }
        std::smatch found;
        ASSERT_TRUE(std::regex_match(line, found, whole)) << line;
        if (found[2].matched) {
            EXPECT_EQ(std::stoi(found[3]), written++);
        } else if (found[4].matched) {
            dropped = std::stoi(found[5]);
        }
    }
    EXPECT_GT(written, 20);
    EXPECT_EQ(written + dropped, kRequests + 1);  // the request of the metrics is one
    EXPECT_THAT(metrics, HasSubstr("orvx_registry_lost_log_lines_total{log=\"requests\"} " +
                                   std::to_string(dropped - 1) + '\n'));
    connection.ask(makeRequest("HEAD", "/after"));
    program.awaitOutput("\"HEAD /after ");
}

TEST_F(TheTool, CarriesOutChangesWhileNobodyReadsItsAuditLogAndCountsTheLinesThatItDrops) {
    const std::string audit = folder_ / "audit";
    ASSERT_EQ(::mkfifo(audit.c_str(), 0600), 0);
    expectRefusedAtStart({"--audit", audit}, audit + ": no process reads this FIFO");
    const OpenFile reader(audit, O_RDWR | O_NONBLOCK);
    RegistryProcess program({"--port", "0", "--audit", audit});
    RawConnection connection(program.port());
    const std::string path = '/' + std::string(7'000, 'x');
    for (int i = 0; i < 100; ++i) {
        EXPECT_EQ(connection.ask(makeRequest("PUT", path, "{}")).result_int() / 100, 2U);
    }
    const std::string metrics = connection.ask(makeRequest("GET", "/-/metrics")).body();
    EXPECT_THAT(metrics, Not(HasSubstr("lost_log_lines_total{log=\"audit\"} 0\n")));
    const std::string text = reader.readUntil("lines dropped\",\"who\":null}\n");
    std::istringstream lines(text);
    std::map<std::string, int> counts;
    int dropped = 0;
    for (std::string line; std::getline(lines, line);) {
        const json read = json::parse(line);
        ++counts[read.at("what")];
        dropped = read.value("count", 0);
    }
    EXPECT_EQ(counts["announced"], 1);
    EXPECT_EQ(1 + counts["replaced"] + dropped, 100);
    EXPECT_THAT(metrics,
                HasSubstr("lost_log_lines_total{log=\"audit\"} " + std::to_string(dropped) + '\n'));
}

TEST_F(TheTool, AnswersWhileNobodyReadsItsErrors) {
    const std::string store = folder_ / std::string(200, 's').c_str();  // each error names it
    RegistryProcess program({"--port", "0", "--store", store});
    RawConnection connection(program.port());
    const rlimit noGrowth{0, RLIM_INFINITY};
    ASSERT_EQ(::prlimit(program.pid(), RLIMIT_FSIZE, &noGrowth, nullptr), 0);
    for (int i = 0; i < 2'000; ++i) {
        ASSERT_EQ(connection.ask(makeRequest("PUT", "/b", "{}")).result(),
                  http::status::internal_server_error);
    }
    program.awaitErrors(", nobody read them\n");
}

TEST_F(TheTool, WritesTheLinesThatItHasQueuedBeforeItEnds) {
    RegistryProcess program({"--port", "0", "--log"});
    RawConnection connection(program.port());
    for (int i = 0; i < 20; ++i) {
        connection.ask(makeRequest("HEAD", "/" + std::string(7'000, 'x')));
    }
    connection.ask(makeRequest("HEAD", "/last"));
    program.signal(SIGTERM);
    const auto result = program.wait();
    EXPECT_TRUE(WIFEXITED(result.status) && WEXITSTATUS(result.status) == 0);
    EXPECT_THAT(result.output, HasSubstr("\"HEAD /last "));
}

TEST_F(TheTool, EndsThoughNobodyReadsItsLog) {
    RegistryProcess program({"--port", "0", "--log"});
    RawConnection connection(program.port());
    for (int i = 0; i < 20; ++i) {
        connection.ask(makeRequest("HEAD", "/" + std::string(7'000, 'x')));
    }
    program.signal(SIGTERM);
    pollfd ended{static_cast<int>(::syscall(SYS_pidfd_open, program.pid(), 0)), POLLIN, 0};
    EXPECT_EQ(::poll(&ended, 1, 10'000), 1);
    ::close(ended.fd);
}

/// The program in a process in which no file can grow, as on a full disk. It has no folder for
/// temporary files, because the thread sanitizer writes one of its own there before main(), and the
/// limit would end the program.
ChildProcess startedOnAFullDisk(const std::string& store) {
    return ChildProcess("/bin/sh", {"-c", "ulimit -f 0; TMPDIR=/dev/null exec \"$@\"", "sh",
                                    RegistryProcess::path(), "--port", "0", "--store", store});
}

TEST_F(TheTool, ServesTheEntriesOfItsStoreOnAFullDisk) {
    const std::string store = folder_ / "store";
    std::string location;
    for (const int end : {SIGTERM, SIGKILL}) {  // SIGKILL leaves changes in a second file
        {
            RegistryProcess program({"--port", "0", "--store", store});
            const auto answer = RawConnection(program.port()).ask(makeRequest("PUT", "/a", "{}"));
            location = std::string(answer[http::field::location]);
            program.signal(end);
            program.wait();
        }
        auto program = startedOnAFullDisk(store);
        const std::string line = program.awaitOutput("\n");
        const auto port = static_cast<std::uint16_t>(std::stoi(line.substr(line.rfind(':') + 1)));
        RawConnection connection(port);
        EXPECT_EQ(connection.ask(makeRequest("HEAD", location)).result(), http::status::ok);
        EXPECT_EQ(connection.ask(makeRequest("PUT", "/b", "{}")).result(),
                  http::status::internal_server_error);
    }
    RegistryProcess program({"--port", "0", "--store", store});
    RawConnection connection(program.port());
    EXPECT_EQ(connection.ask(makeRequest("HEAD", location)).result(), http::status::ok);
    EXPECT_EQ(connection.ask(makeRequest("PUT", "/b", "{}")).result(), http::status::created);
}

TEST_F(TheTool, RefusesAFullDiskForANewStore) {
    auto program = startedOnAFullDisk(folder_ / "store");
    const auto result = program.wait();
    EXPECT_TRUE(WIFEXITED(result.status) && WEXITSTATUS(result.status) == 125) << result.status;
    EXPECT_THAT(result.errors, HasSubstr("/store: "));
}

TEST_F(TheTool, RefusesAStoreThatIsNone) {
    expectRefusedAtStart({"--store", write("store", std::string(200, 'x'))}, "not a database");
}

TEST_F(TheTool, LetsEntriesExpireThatAreNotChecked) {
    RegistryProcess program({"--port", "0", "--ttl", "1"});
    RawConnection connection(program.port());
    const auto begin = Clock::now();
    const auto response = connection.ask(makeRequest("PUT", "/a", "{}"));
    const std::string look = makeRequest("GET", std::string(response[http::field::location]));
    while (connection.ask(look).result() == http::status::ok) {
        ASSERT_LT(Clock::now() - begin, 10s);
    }
    EXPECT_GE(Clock::now() - begin, 1s);
}

TEST_F(TheTool, LetsNothingExpireForATimeInWhichItWasStopped) {
    constexpr auto kTtl = 1s;
    RegistryProcess program({"--port", "0", "--ttl", std::to_string(kTtl.count())});
    RawConnection connection(program.port());
    const auto response = connection.ask(makeRequest("PUT", "/a", "{}"));
    program.signal(SIGSTOP);
    siginfo_t state{};
    ASSERT_EQ(::waitid(P_PID, static_cast<id_t>(program.pid()), &state, WSTOPPED), 0);
    connection.send(makeRequest("HEAD", std::string(response[http::field::location])));
    std::this_thread::sleep_for(kTtl + 100ms);  // the registry must not count this time
    program.signal(SIGCONT);
    EXPECT_EQ(connection.receive(true).result(), http::status::ok);
}

TEST_F(TheTool, HoldsAsManyEntriesAsItIsTold) {
    RegistryProcess program({"--port", "0", "--max-entries", "1"});
    RawConnection connection(program.port());
    connection.ask(makeRequest("PUT", "/a", "{}"));
    EXPECT_EQ(connection.ask(makeRequest("PUT", "/b", "{}")).result(),
              http::status::insufficient_storage);
}

TEST(TheDocumentationOfTheTool, NamesEveryOption) {
    const std::string help = RegistryProcess({"--help"}).wait().output;
    const std::string manual = contentOf(std::string(paths::kRegistrySources) + "/orvx-registry.1");
    const std::string page =
        contentOf(std::string(paths::kRegistrySources) + "/../../docs/registry-tool.md");
    const std::regex option("\n  (--[a-z-]+) ");
    int count = 0;
    for (std::sregex_iterator at(help.begin(), help.end(), option); at != std::sregex_iterator();
         ++at, ++count) {
        const std::string name = (*at)[1];
        EXPECT_THAT(manual, HasSubstr("\n.It Fl " + name.substr(1)));
        EXPECT_THAT(page, HasSubstr("| `" + name + "` |"));
    }
    EXPECT_EQ(count, 23);
}

}  // namespace
}  // namespace orvx::registry
