#pragma once

#include <fstream>
#include <nlohmann/json_fwd.hpp>
#include <ostream>
#include <string>
#include <string_view>

#include "Caller.h"

namespace orvx::registry {

/// One line of JSON for each change: who, what, from where. Holds no secret.
///
/// Thread-safety: one thread at a time.
class AuditLog {
  public:
    /// Appends to that file; `-` is stdout. Throws a FileError when it cannot be opened.
    explicit AuditLog(const std::string& path);
    AuditLog(const AuditLog&) = delete;
    AuditLog& operator=(const AuditLog&) = delete;

    /// `caller`: null when the registry itself did it. Both say on stderr when the file cannot be
    /// written any more.
    void write(Change change, const Entry& entry, const Caller* caller);
    void write(std::string_view what, const Caller* caller);

  private:
    void write(nlohmann::json line, const Caller* caller);

    std::ofstream file_;
    std::ostream& out_;
    bool hasFailed_ = false;
};

}  // namespace orvx::registry
