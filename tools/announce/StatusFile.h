#pragma once

#include <nlohmann/json.hpp>

#include <string>

namespace orvx::announce {

/// A JSON file that always holds a whole state: it is replaced in one step, and only when the state
/// has changed.
/// Thread-safety: none.
class StatusFile {
  public:
    explicit StatusFile(std::string name) : name_(std::move(name)) {}

    /// Throws std::system_error, once for as long as writing fails.
    void write(const nlohmann::json& state);

  private:
    std::string name_;
    nlohmann::json written_;
    bool failed_ = false;
};

}  // namespace orvx::announce
