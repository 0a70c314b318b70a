#pragma once

#include <nlohmann/json.hpp>

#include <chrono>
#include <string>

namespace orvx::announce {

/// A time, such as "2026-01-31T12:00:00Z".
std::string timestamp(
    std::chrono::system_clock::time_point when = std::chrono::system_clock::now());

/// Writes what happens, one line each: for people, "<time> orvx-announce: <event> key=value ...",
/// or as a JSON object with "time", "event" and the same keys. A line that nobody takes is dropped:
/// nothing ever waits for a reader.
/// Thread-safety: none.
class Report {
  public:
    enum class Mood { Plain, Good, Bad };

    /// With colours when `descriptor` is a terminal and the environment does not forbid it.
    Report(int descriptor, bool asJson);

    void event(const std::string& name, Mood mood, const nlohmann::json& details = {});

  private:
    std::string forPeople(const std::string& name, Mood mood, const nlohmann::json& details) const;

    int descriptor_;
    bool asJson_;
    bool colour_;
};

}  // namespace orvx::announce
