#pragma once

#include <functional>
#include <thread>

#include "RawConnection.h"
#include "RegistryServer.h"

namespace orvx::registry {

/// A registry at any free port that runs on a thread of its own as long as this object lives.
class RunningRegistry {
  public:
    /// `ready`: the argument of onReady(), or null.
    explicit RunningRegistry(RegistryOptions options = {},
                             const std::function<void(bool)>& ready = {})
        : server_(atAnyPort(std::move(options))), thread_([this, ready] {
              if (ready) {
                  server_.onReady(ready);
              }
              server_.run();
          }) {}
    ~RunningRegistry() { stop(); }
    RunningRegistry(const RunningRegistry&) = delete;
    RunningRegistry& operator=(const RunningRegistry&) = delete;

    std::uint16_t port() const { return server_.port(); }
    RawConnection connect() const { return RawConnection(port()); }

    void reload() { server_.reload(); }

    /// Stops the registry and waits until run() has returned.
    void stop() {
        server_.stop();
        if (thread_.joinable()) {
            thread_.join();
        }
    }

  private:
    static RegistryOptions atAnyPort(RegistryOptions options) {
        options.port = 0;
        return options;
    }

    RegistryServer server_;
    std::thread thread_;
};

}  // namespace orvx::registry
