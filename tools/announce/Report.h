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
/// nothing ever waits for a reader. Of a line that was begun the rest is kept, and no other line is
/// begun before it is written, so that each line is whole.
/// Thread-safety: none.
class Report {
  public:
    enum class Mood { Plain, Good, Bad };

    /// With colours when `descriptor` is a terminal and the environment does not forbid it.
    Report(int descriptor, bool asJson);
    ~Report();
    Report(const Report&) = delete;
    Report& operator=(const Report&) = delete;

    void event(const std::string& name, Mood mood, const nlohmann::json& details = {});
    /// As much as there is room for; to be called now and then.
    void writeRest();

  private:
    std::string forPeople(const std::string& name, Mood mood, const nlohmann::json& details) const;

    /// Of a second open file description; -1: there is none.
    int ownDescriptor_;
    int descriptor_;
    /// The rest of a line that was begun.
    std::string rest_;
    bool asJson_;
    bool colour_;
};

}  // namespace orvx::announce
