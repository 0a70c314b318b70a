#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>

#include "Caller.h"
#include "LogOutput.h"

namespace orvx::registry {

/// One line of JSON for each change: who, what, from where. Holds no secret.
///
/// Thread-safety: one thread at a time.
class AuditLog {
  public:
    /// Appends to that file; `-` is stdout. Throws as LogOutput.
    explicit AuditLog(const std::string& path);

    /// `caller`: null when the registry itself did it. False: the line is lost.
    bool write(Change change, const Entry& entry, const Caller* caller);
    bool write(std::string_view what, const Caller* caller);

  private:
    bool write(nlohmann::json line, const Caller* caller);

    LogOutput output_;
};

}  // namespace orvx::registry
