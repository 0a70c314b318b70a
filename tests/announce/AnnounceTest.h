#pragma once

#include "ChildProcess.h"
#include "Folder.h"
#include "IntegrationSupport.h"
#include "Paths.h"

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include <chrono>
#include <csignal>
#include <string>
#include <vector>

namespace orvx::announce {

using nlohmann::json;
using registry::ChildProcess;
using serviceregistryclient::entriesAt;
using serviceregistryclient::passOn;
using std::chrono::steady_clock;
using ::testing::AllOf;
using testing::contentOf;
using testing::eventually;
using testing::Folder;
using ::testing::HasSubstr;
using testing::HostileServer;
using ::testing::IsEmpty;
using ::testing::Not;
using testing::Request;
using testing::Script;
using namespace std::chrono_literals;

using Words = std::vector<std::string>;

Words operator+(Words left, const Words& right);

/// tests/announce/command.py as the command after "--".
Words command(const Words& arguments = {});
/// A shell script as the command.
Words shell(const std::string& script);

std::string urlOf(std::uint16_t port);

/// The lines that --json makes of the events.
std::vector<json> linesOf(const std::string& output);
/// Their names, each with a space after it.
std::string eventsOf(const std::vector<json>& lines);

/// The exit code; -1 when a signal ended it.
int exitCode(const ChildProcess::Result& result);

/// The program with a registry, a server in front of it that tests may have misbehave, and a
/// service that takes connections, whose ready check so succeeds.
class AnnounceTest : public ::testing::Test {
  protected:
    /// Gives programs the signals as a terminal does, also where the tests run in a background that
    /// ignores some of them.
    AnnounceTest();

    json entries() const { return entriesAt(registry.port()); }
    /// Forgets the only entry.
    void loseTheEntry() const;
    /// The server in front passes on what has no other script.
    void passOnInFront();
    /// Holds the answer to that method back until the server in front is released by its name.
    void holdBack(const std::string& method);
    void answerInFront(const std::string& method, const std::string& answer);

    /// The options that every test needs: a service "echo" at that registry.
    Words echo(std::uint16_t registryPort) const;
    Words echo() const { return echo(registry.port()); }

    registry::RunningRegistry registry;
    HostileServer front;
    HostileServer service;
};

/// orvx-announce as a child process.
class Announce : public ChildProcess {
  public:
    explicit Announce(Words arguments)
        : ChildProcess(paths::kAnnounceProgram, std::move(arguments)) {}

    /// Stops it; what it printed, when it ended with this code.
    Result stopped(int code, int number = SIGTERM);
    Result ended(int code);
};

}  // namespace orvx::announce
