#pragma once

#include <nlohmann/json.hpp>

#include <string>

namespace orvx::announce {

/// A JSON file that always holds a complete state: it is replaced atomically, and only when the
/// state has changed.
/// Thread-safety: none.
class StatusFile {
  public:
    explicit StatusFile(std::string name) : name_(std::move(name)) {}

    /// Throws std::system_error on failure, but not again before a write has succeeded.
    void write(const nlohmann::json& state);

  private:
    std::string name_;
    nlohmann::json written_;
    bool failed_ = false;
};

}  // namespace orvx::announce
