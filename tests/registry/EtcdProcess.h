#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "ChildProcess.h"
#include "TemporaryFolder.h"

namespace orvx::registry {

class Certificates;

/// Reserves a port of 127.0.0.1 against other programs while this object lives, whether or not a
/// program listens at it.
class ReservedPort {
  public:
    ReservedPort();
    ~ReservedPort();
    ReservedPort(const ReservedPort&) = delete;
    ReservedPort& operator=(const ReservedPort&) = delete;

    std::uint16_t number() const { return number_; }

  private:
    int socket_;
    std::uint16_t number_ = 0;
};

/// A member of etcd as a child process with a folder of its own. It has a leader when the
/// constructor returns. A function that waits too long throws a std::runtime_error with the end of
/// etcd's log.
///
/// Thread-safety: none. The process ends with the thread that started it, at the latest.
class EtcdProcess {
  public:
    /// A cluster of one member. `certificates`: null for http; otherwise the member presents the
    /// certificate "etcd", and requires a certificate of the same authority.
    explicit EtcdProcess(const Certificates* certificates = nullptr);

    /// The URL for clients.
    std::string url() const;
    pid_t pid() const { return process_->pid(); }

    /// Kills it with SIGKILL.
    void stop();
    /// After stop(): starts the member again with the same ports and data. Waits until it has a
    /// leader.
    void start();
    /// Sends SIGSTOP; resume() sends SIGCONT.
    void pause() const;
    void resume() const;

  private:
    friend class EtcdCluster;

    EtcdProcess(std::string name, const Certificates* certificates);

    std::string peerUrl() const;
    void launch();
    void awaitLeader();
    bool hasLeader() const;

    const std::string name_;
    const Certificates* const certificates_;
    const ReservedPort clients_{};
    const ReservedPort peers_{};
    const ReservedPort health_{};
    const TemporaryFolder folder_;
    std::string cluster_;  // "name=url of the peer,..."
    std::unique_ptr<ChildProcess> process_{};
};

/// Members of one cluster of etcd, which has a leader when the constructor returns.
///
/// Thread-safety: none.
class EtcdCluster {
  public:
    explicit EtcdCluster(std::size_t size = 3);

    EtcdProcess& operator[](std::size_t index) { return *members_[index]; }
    std::vector<std::string> urls() const;

  private:
    std::vector<std::unique_ptr<EtcdProcess>> members_{};
};

}  // namespace orvx::registry
