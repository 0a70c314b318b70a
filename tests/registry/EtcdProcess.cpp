// Starts members of etcd and requests their health at a port without TLS.
// Runs on the thread that owns the process.
// There is no lock.

#include "EtcdProcess.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <utility>

#include "RawConnection.h"
#include "TlsConnection.h"

namespace orvx::registry {

using namespace std::chrono_literals;

namespace {

constexpr auto kLongestStart = 30s;
constexpr auto kBetweenQuestions = 10ms;
constexpr std::size_t kEndOfLog = 2'000;
constexpr std::uintmax_t kMuchMemory = 4'294'967'296;

std::string at(const ReservedPort& port) {
    return "127.0.0.1:" + std::to_string(port.number());
}

/// A folder in memory, if there is much of it. A disk may take seconds for an fsync() while other
/// programs write to it; then etcd does not answer in time.
std::filesystem::path placeOfData() {
    const std::filesystem::path memory = "/dev/shm";
    std::error_code error;
    const auto space = std::filesystem::space(memory, error);
    const bool isSuitable =
        !error && space.available > kMuchMemory && ::access(memory.c_str(), W_OK) == 0;
    return isSuitable ? memory : std::filesystem::temp_directory_path();
}

std::string endOf(const std::string& file) {
    std::ostringstream text;
    text << std::ifstream(file).rdbuf();
    const std::string all = text.str();
    return all.substr(all.size() - std::min(all.size(), kEndOfLog));
}

}  // namespace

// A socket that is bound, but does not listen, reserves the port against programs that ask for any
// free port. SO_REUSEADDR, which etcd also sets, still lets etcd listen there. It is set after the
// bind, which could otherwise choose a port that another object of this class reserves.
ReservedPort::ReservedPort() : socket_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    socklen_t size = sizeof address;
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    const int on = 1;
    if (socket_ < 0 || ::bind(socket_, generic, size) != 0 ||
        ::getsockname(socket_, generic, &size) != 0 ||
        ::setsockopt(socket_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0) {
        throw std::system_error(errno, std::generic_category(), "a port");
    }
    number_ = ntohs(address.sin_port);
}

ReservedPort::~ReservedPort() {
    ::close(socket_);
}

EtcdProcess::EtcdProcess(const Certificates* certificates) : EtcdProcess("etcd", certificates) {
    cluster_ = name_ + '=' + peerUrl();
    start();
}

EtcdProcess::EtcdProcess(std::string name, const Certificates* certificates)
    : name_(std::move(name)), certificates_(certificates), folder_(placeOfData()) {}

std::string EtcdProcess::url() const {
    return (certificates_ == nullptr ? "http://" : "https://") + at(clients_);
}

std::string EtcdProcess::peerUrl() const {
    return "http://" + at(peers_);
}

void EtcdProcess::stop() {
    process_.reset();
}

void EtcdProcess::start() {
    launch();
    awaitLeader();
}

void EtcdProcess::pause() const {
    process_->signal(SIGSTOP);
    siginfo_t state{};
    ::waitid(P_PID, static_cast<id_t>(pid()), &state, WSTOPPED);
}

void EtcdProcess::resume() const {
    process_->signal(SIGCONT);
}

void EtcdProcess::launch() {
    // The log is a file: etcd would block on a full pipe that nobody reads.
    std::vector<std::string> arguments{"--pdeathsig",
                                       "KILL",
                                       "sh",
                                       "-c",
                                       R"(exec etcd "$@" >>"$0" 2>&1)",
                                       folder_ / "log",
                                       "--name",
                                       name_,
                                       "--data-dir",
                                       folder_ / "data",
                                       "--listen-client-urls",
                                       url(),
                                       "--advertise-client-urls",
                                       url(),
                                       "--listen-peer-urls",
                                       peerUrl(),
                                       "--initial-advertise-peer-urls",
                                       peerUrl(),
                                       "--initial-cluster",
                                       cluster_,
                                       "--listen-metrics-urls",
                                       "http://" + at(health_)};
    if (certificates_ != nullptr) {
        for (const auto& [option, file] : {std::pair{"--cert-file", "etcd.pem"},
                                           {"--key-file", "etcd.key"},
                                           {"--trusted-ca-file", "ca.pem"}}) {
            arguments.insert(arguments.end(), {option, certificates_->file(file)});
        }
        arguments.push_back("--client-cert-auth");
    }
    process_ = std::make_unique<ChildProcess>("/usr/bin/setpriv", std::move(arguments));
}

void EtcdProcess::awaitLeader() {
    const auto end = std::chrono::steady_clock::now() + kLongestStart;
    while (!hasLeader()) {
        siginfo_t state{};
        ::waitid(P_PID, static_cast<id_t>(pid()), &state, WEXITED | WNOHANG | WNOWAIT);
        if (state.si_pid != 0 || std::chrono::steady_clock::now() > end) {
            throw std::runtime_error("etcd does not start: " + endOf(folder_ / "log"));
        }
        std::this_thread::sleep_for(kBetweenQuestions);
    }
}

bool EtcdProcess::hasLeader() const {
    try {
        const auto response =
            RawConnection(health_.number()).ask("GET /health HTTP/1.1\r\nHost: etcd\r\n\r\n");
        return response.body().find("\"true\"") != std::string::npos;
    } catch (const std::exception&) {
        return false;  // it does not listen yet
    }
}

EtcdCluster::EtcdCluster(std::size_t size) {
    std::string cluster;
    for (std::size_t i = 0; i < size; ++i) {
        members_.push_back(
            std::unique_ptr<EtcdProcess>(new EtcdProcess("etcd" + std::to_string(i), nullptr)));
        cluster += (i == 0 ? "" : ",") + members_[i]->name_ + '=' + members_[i]->peerUrl();
    }
    for (const auto& member : members_) {
        member->cluster_ = cluster;
        member->launch();
    }
    for (const auto& member : members_) {
        member->awaitLeader();
    }
}

std::vector<std::string> EtcdCluster::urls() const {
    std::vector<std::string> urls;
    for (const auto& member : members_) {
        urls.push_back(member->url());
    }
    return urls;
}

}  // namespace orvx::registry
