#pragma once

#include "Request.h"

#include <orvx/utility/StreamingLogger.h>

#include <string>
#include <string_view>

namespace orvx::communication {

/// The causes of one endpoint's failures for human readers, and their log. A cause is empty if
/// memory runs out.
///
/// For the I/O thread only.
class FailureCauses {
  public:
    /// The arguments must outlive it.
    FailureCauses(const EndpointSettings& settings, const utility::StreamingLogger& logger)
        : settings_(settings), logger_(logger) {}

    /// The cause of a failure with the endpoint. `detail` is what else is known.
    std::string of(CommunicationStatus status, const std::string& detail) const noexcept;
    /// The cause of a TLS failure on an established connection. Empty for other failures.
    std::string ofTls(CommunicationStatus status, const std::string& error) const noexcept;
    /// The cause of a look-up that failed for this reason; empty without a reason.
    std::string ofLookUp(std::string_view reason) const noexcept;

    /// Logs a cause once until the next answer or another cause. The line is lost if memory runs
    /// out.
    void logOnce(const std::string& cause) noexcept;
    /// An answer has come.
    void onAnswered() noexcept { lastLogged_.clear(); }

  private:
    const EndpointSettings& settings_;
    const utility::StreamingLogger& logger_;
    std::string lastLogged_;  // Empty after an answer.
};

}  // namespace orvx::communication
