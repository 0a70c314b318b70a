#pragma once

#include <cstdint>

namespace orvx::benchmarks {

/// A port that accepts connections and never answers.
class SilentRegistry {
  public:
    SilentRegistry();
    ~SilentRegistry();
    SilentRegistry(const SilentRegistry&) = delete;
    SilentRegistry& operator=(const SilentRegistry&) = delete;

    std::uint16_t port() const { return port_; }

  private:
    const int listener_;
    std::uint16_t port_ = 0;
};

}  // namespace orvx::benchmarks
