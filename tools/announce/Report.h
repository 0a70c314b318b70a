#pragma once

#include <nlohmann/json.hpp>

#include <chrono>
#include <string>

namespace orvx::announce {

/// The time in UTC, such as "2026-01-31T12:00:00Z".
std::string timestamp(
    std::chrono::system_clock::time_point when = std::chrono::system_clock::now());

/// Writes one line for each event: as text, "<time> orvx-announce: <event> key=value ...", or as a
/// JSON object with "time", "event" and the same keys. Writing never blocks: a line is dropped when
/// the reader has no room for any of it. When only a part of a line could be written, the rest is
/// kept and written before the next line, so that each line is whole.
/// Thread-safety: none.
class Report {
  public:
    enum class Severity { Info, Success, Error };

    /// Uses colours when `descriptor` is a terminal, unless NO_COLOR is set or TERM is "dumb".
    Report(int descriptor, bool asJson);
    ~Report();
    Report(const Report&) = delete;
    Report& operator=(const Report&) = delete;

    void event(const std::string& name, Severity severity, const nlohmann::json& details = {});
    /// Writes as much of a kept rest as there is room for. Call it periodically.
    void writePending();

  private:
    std::string textLine(const std::string& name, Severity severity,
                         const nlohmann::json& details) const;

    /// Refers to a second open file description of the stream; -1: there is none.
    int ownDescriptor_;
    int descriptor_;
    /// The rest of a partly written line.
    std::string pending_;
    bool asJson_;
    bool colour_;
};

}  // namespace orvx::announce
