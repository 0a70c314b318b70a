#pragma once

#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <future>
#include <iterator>
#include <string>
#include <thread>
#include <utility>

namespace orvx::testing {

/// Runs a blocking call on its own thread. Ends the process if the call does not return.
template <typename Result>
class BlockingCall {
  public:
    explicit BlockingCall(std::function<Result()> call)
        : result_(std::async(std::launch::async, [this, call = std::move(call)] {
              thread_.set_value(gettid());
              return call();
          })) {}
    ~BlockingCall() { expectReturn(); }
    BlockingCall(const BlockingCall&) = delete;
    BlockingCall& operator=(const BlockingCall&) = delete;

    /// Waits until the thread sleeps inside the call. Returns false if the call returns, or if
    /// neither happens within ten seconds. Call it once.
    bool isWaiting() {
        const pid_t thread = thread_.get_future().get();
        const auto end = std::chrono::steady_clock::now() + patience;
        while (result_.wait_for(std::chrono::seconds(0)) != std::future_status::ready &&
               std::chrono::steady_clock::now() < end) {
            if (isAsleep(thread)) {
                return true;
            }
            std::this_thread::yield();
        }
        return false;
    }

    /// The result of the call.
    Result get() {
        expectReturn();
        return result_.get();
    }

  private:
    static constexpr std::chrono::seconds patience{10};

    static bool isAsleep(pid_t thread) {
        std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/stat");
        const std::string stat{std::istreambuf_iterator<char>(file), {}};
        const std::size_t name = stat.rfind(')');
        return name != std::string::npos && stat.compare(name, 3, ") S") == 0;
    }
    void expectReturn() {
        if (result_.valid() && result_.wait_for(patience) != std::future_status::ready) {
            std::fputs("a blocking call does not return\n", stderr);
            std::abort();
        }
    }

    std::promise<pid_t> thread_;
    std::future<Result> result_;
};

}  // namespace orvx::testing
