// Helpers that run orvx-announce with a registry and a service. Entered by the test's thread; the
// handlers of the server in front by that server's thread. No lock.
#include "AnnounceTest.h"

#include "Paths.h"

#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

namespace orvx::announce {

Words operator+(Words left, const Words& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

Words command(const Words& arguments) {
    return Words{"--", "python3", std::string(paths::kAnnounceTests) + "/command.py"} + arguments;
}

Words shell(const std::string& script) {
    return {"--", "/bin/sh", "-c", script};
}

std::string urlOf(std::uint16_t port) {
    return "http://127.0.0.1:" + std::to_string(port);
}

std::vector<json> linesOf(const std::string& output) {
    std::vector<json> lines;
    std::istringstream stream(output);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(json::parse(line));
    }
    return lines;
}

std::string eventsOf(const std::vector<json>& lines) {
    std::string events;
    for (const json& line : lines) {
        events += line.at("event").get<std::string>() + " ";
    }
    return events;
}

std::string writeUnprobable(const Folder& folder) {
    const auto longestArgument = 32 * static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
    const json lamp{{"name", "lamp"},
                    {"port", 1},
                    {"uri", "/lamp"},
                    {"host", std::string(longestArgument, 'x')}};
    return folder.write("set.json", json::array({lamp}).dump());
}

int exitCode(const ChildProcess::Result& result) {
    return WIFEXITED(result.status) ? WEXITSTATUS(result.status) : -1;
}

bool hasPendingSignal(pid_t pid) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    std::string word;
    while (status >> word && word != "ShdPnd:") {
    }
    status >> word;
    return word.find_first_not_of('0') != std::string::npos;
}

AnnounceTest::AnnounceTest() {
    for (const int number : {SIGINT, SIGQUIT, SIGHUP}) {
        ::signal(number, SIG_DFL);
    }
}

void AnnounceTest::loseTheEntry() const {
    const std::string target = "/" + entries().at(0).at("uuid").get<std::string>();
    registry.connect().ask(registry::makeRequest("DELETE", target));
}

void AnnounceTest::passOnInFront() {
    front.onRequest([this](const Request& request) { return passOn(request, registry.port()); });
}

void AnnounceTest::holdBack(const std::string& method) {
    front.onRequest([this, method](const Request& request) {
        const std::string answer = passOn(request, registry.port());
        return request.method == method ? Script().waitForRelease(method).send(answer)
                                        : Script(answer);
    });
}

void AnnounceTest::answerInFront(const std::string& method, const std::string& answer) {
    front.onRequest([this, method, answer](const Request& request) {
        return request.method == method ? answer : passOn(request, registry.port());
    });
}

Words AnnounceTest::echo(std::uint16_t registryPort) const {
    return {"--registry", urlOf(registryPort),           "--name", "echo",
            "--port",     std::to_string(service.port())};
}

ChildProcess::Result Announce::stopped(int code, int number) {
    signal(number);
    return ended(code);
}

ChildProcess::Result Announce::ended(int code) {
    const Result result = wait();
    EXPECT_EQ(exitCode(result), code) << result.status << '\n' << result.errors << result.output;
    return result;
}

}  // namespace orvx::announce
