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

/// The command tests/announce/command.py with these arguments, after "--".
Words command(const Words& arguments = {});
/// A command that runs a shell script, after "--".
Words shell(const std::string& script);

std::string urlOf(std::uint16_t port);

/// The events that --json prints, one for each line.
std::vector<json> linesOf(const std::string& output);
/// The names of the events, each followed by a space.
std::string eventsOf(const std::vector<json>& lines);

/// Writes a file for --from with one service, and returns its name. The service's host is longer
/// than an argument of a process may be, so no attempt to probe the service can be started.
std::string writeUnprobable(const Folder& folder);

/// The exit code; -1 if a signal ended the process.
int exitCode(const ChildProcess::Result& result);

/// Whether the process has not taken a signal yet that was sent to it.
bool hasPendingSignal(pid_t pid);

/// Runs the program with a registry, a server in front of it that tests may make fail, and a
/// service that accepts connections, so that its ready check succeeds.
class AnnounceTest : public ::testing::Test {
  protected:
    /// Gives child processes the default action of each signal, as a terminal does, even if the
    /// tests run in a background process that ignores some signals.
    AnnounceTest();

    json entries() const { return entriesAt(registry.port()); }
    /// Makes the registry forget its only entry.
    void loseTheEntry() const;
    /// The server in front forwards each request without another script to the registry.
    void passOnInFront();
    /// The server in front holds back the answers to this method until a test releases the method's
    /// name.
    void holdBack(const std::string& method);
    void answerInFront(const std::string& method, const std::string& answer);

    /// The options that every test needs: a service "echo" at this registry.
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

    /// Sends the signal, and expects this exit code. Returns the output.
    Result stopped(int code, int number = SIGTERM);
    Result ended(int code);
};

}  // namespace orvx::announce
