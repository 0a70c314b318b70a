#pragma once

#include <optional>
#include <string>

#include "LineWriter.h"

namespace orvx::registry {

/// Where a log is written: stdout, or a file that is appended to. A line is in a regular file when
/// write() returns. A reader of a FIFO, or of stdout where a LineStream is set, is not waited for.
///
/// Thread-safety: one thread at a time.
class LogOutput {
  public:
    /// `name`: such as "audit log", for messages. `path`: `-` is stdout. `dropLine`: for a file.
    /// Throws a FileError when the file cannot be opened, and for a FIFO that no process reads.
    LogOutput(std::string name, const std::string& path, tools::LineWriter::DropLine dropLine);
    ~LogOutput();
    LogOutput(const LogOutput&) = delete;
    LogOutput& operator=(const LogOutput&) = delete;

    /// `line`: with its end. False: it is lost. The first of several that are lost in a row is
    /// reported on stderr.
    bool write(const std::string& line);

  private:
    const std::string name_;
    int descriptor_ = -1;  // -1: stdout
    std::optional<tools::LineWriter> file_{};
    bool hasFailed_ = false;
};

}  // namespace orvx::registry
