// Starts the benchmark server from the folder of the running program, and gives it orders over a
// separate connection without TLS. One thread, no lock.

#include "ServerProcess.h"

#include "Measure.h"
#include "Source.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

namespace orvx::benchmarks {

namespace {

[[noreturn]] void becomeServer(const std::string& program, int input, int output) {
    useLastProcessor();
    ::dup2(input, STDIN_FILENO);
    ::dup2(output, STDOUT_FILENO);
    const std::string certificate = certificateFile();
    const std::string key = fileInProgramFolder("key.pem");
    ::execl(program.c_str(), program.c_str(), certificate.c_str(), key.c_str(), nullptr);
    ::_exit(127);
}

}  // namespace

ServerProcess::ServerProcess() {
    const std::string program = fileInProgramFolder("orvx_bench_server");
    std::array<int, 2> input{};
    std::array<int, 2> output{};
    require(::pipe2(input.data(), O_CLOEXEC) == 0 && ::pipe2(output.data(), O_CLOEXEC) == 0,
            "no pipe");
    process_ = ::fork();
    if (process_ == 0) {
        becomeServer(program, input[0], output[1]);
    }
    ::close(input[0]);
    ::close(output[1]);
    end_ = input[1];
    std::array<char, 16> line{};
    require(::read(output[0], line.data(), line.size() - 1) > 0, "the server does not start");
    ::close(output[0]);
    require(!shareProcessor(0, process_), "client and server must not share a processor");
    std::size_t end = 0;
    ports_[0] = static_cast<std::uint16_t>(std::stoul(line.data(), &end));
    ports_[1] = static_cast<std::uint16_t>(std::stoul(line.data() + end));
    socket_ = connectTo(ports_[0]);
}

ServerProcess::~ServerProcess() {
    ::close(socket_);
    ::close(end_);
    ::waitpid(process_, nullptr, 0);
}

std::uint64_t ServerProcess::heads() {
    const std::string counts = ask("/counts");
    return std::stoull(counts.substr(counts.find(' ')));
}

/// The body of the answer, which comes in one piece.
std::string ServerProcess::ask(const std::string& path) const {
    const std::string request = "GET " + path + " HTTP/1.1\r\n\r\n";
    std::array<char, 512> answer{};
    require(::send(socket_, request.data(), request.size(), 0) > 0, "no order can be given");
    const auto size = ::recv(socket_, answer.data(), answer.size(), 0);
    require(size > 0, "the server has gone");
    const std::string text(answer.data(), static_cast<std::size_t>(size));
    return text.substr(text.find("\r\n\r\n") + 4);
}

}  // namespace orvx::benchmarks
