#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "LogOutput.h"

namespace orvx::registry {

/// One line for each request, in the common log format. A remark is one more field, in quotes.
///
/// Thread-safety: one thread at a time.
class RequestLog {
  public:
    /// Appends to that file; `-` is stdout. Throws as LogOutput.
    explicit RequestLog(const std::string& path);

    /// `user`: empty for one that is not known. `request`: its first line, with any bytes; empty:
    /// there was none. `status` 0: no answer. False: the line is lost.
    bool write(std::string_view address, std::string_view user, std::string_view request,
               unsigned status, std::size_t size, std::string_view remark);

  private:
    LogOutput output_;
};

}  // namespace orvx::registry
