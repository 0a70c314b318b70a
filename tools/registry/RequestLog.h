#pragma once

#include <cstddef>
#include <fstream>
#include <ostream>
#include <string>
#include <string_view>

namespace orvx::registry {

/// One line for each request, in the common log format. A remark is one more field, in quotes.
///
/// Thread-safety: one thread at a time.
class RequestLog {
  public:
    /// Appends to that file; `-` is stdout. Throws a FileError when it cannot be opened.
    explicit RequestLog(const std::string& path);
    RequestLog(const RequestLog&) = delete;
    RequestLog& operator=(const RequestLog&) = delete;

    /// `user`: empty for one that is not known. `request`: its first line, with any bytes; empty:
    /// there was none. `status` 0: no answer. Says on stderr when the file cannot be written any
    /// more.
    void write(std::string_view address, std::string_view user, std::string_view request,
               unsigned status, std::size_t size, std::string_view remark);

  private:
    std::ofstream file_;
    std::ostream& out_;
    bool hasFailed_ = false;
};

}  // namespace orvx::registry
