#pragma once

#include <nlohmann/json.hpp>

#include <chrono>
#include <string>

#include "LineWriter.h"

namespace orvx::announce {

/// The time in UTC, such as "2026-01-31T12:00:00Z".
std::string timestamp(
    std::chrono::system_clock::time_point when = std::chrono::system_clock::now());

/// Writes one line for each event: as text, "<time> orvx-announce: <event> key=value ...", or as a
/// JSON object with "time", "event" and the same keys. Writing never waits for a reader, as
/// LineWriter describes; the event "lines-dropped" tells how many lines were lost.
/// Thread-safety: none.
class Report {
  public:
    enum class Severity { Info, Success, Error };

    /// Uses colours when `descriptor` is a terminal, unless NO_COLOR is set or TERM is "dumb".
    Report(int descriptor, bool asJson);

    void event(const std::string& name, Severity severity, const nlohmann::json& details = {});
    /// Writes as many of the queued lines as there is room for. Call it periodically.
    void writePending() { writer_.flush(); }

  private:
    std::string lineOf(const std::string& name, Severity severity,
                       const nlohmann::json& details) const;
    std::string textLine(const std::string& name, Severity severity,
                         const nlohmann::json& details) const;

    const bool asJson_;
    const bool colour_;
    tools::LineWriter writer_;
};

}  // namespace orvx::announce
