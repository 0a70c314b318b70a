// Converts outcomes and failures of the library to text and JSON.
// Runs on the main thread; there is no lock.

#include "Outcome.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <set>

#include "Report.h"

namespace orvx::announce {

using communication::ClientStatistics;
using communication::CommunicationStatus;
using nlohmann::json;
using serviceregistryclient::OrvRegistrationResponse;
using serviceregistryclient::RegistrationStatus;

namespace {

constexpr std::size_t kLongestBody = 200;

}  // namespace

std::string toText(const OrvRegistrationResponse& outcome) {
    if (!outcome.httpResponse) {
        return OrvRegistrationResponse::errorCodeString(outcome.errorCode);
    }
    const auto& response = *outcome.httpResponse;
    const auto code = static_cast<int>(response.getStatusCode());
    if (code == 0) {
        const std::string status =
            communication::communicationStatusToString(response.getCommunicationStatus());
        return response.getCause().empty() ? status : status + ": " + response.getCause();
    }
    std::string text = "HTTP " + std::to_string(code);
    if (response.getContentLength() > 0) {
        text += ": " + response.getBody().substr(0, kLongestBody);
    }
    return text;
}

json toJson(const RegistrationStatus::Failure& failure) {
    json shown{{"when", timestamp(failure.time)},
               {"outcome", communication::communicationStatusToString(failure.communicationStatus)},
               {"text", failure.text}};
    if (failure.httpStatus != 0) {
        shown["httpStatus"] = failure.httpStatus;
    }
    return shown;
}

// Excludes the statuses that OrvServiceRegistryContext::enableResilience() retries.
bool isRefusal(const RegistrationStatus::Failure& failure) {
    static const std::set<int> retried{408, 425, 429, 500, 502, 503, 504};
    return failure.httpStatus >= 300 && retried.count(failure.httpStatus) == 0;
}

bool nothingWasSent(const ClientStatistics::Snapshot& counted) {
    const auto isUnsent = [](const auto& entry) {
        return entry.first == CommunicationStatus::NoSession ||
               entry.first == CommunicationStatus::ResolveFailed ||
               entry.first == CommunicationStatus::ConnectFailed;
    };
    return counted.completed > 0 &&
           std::all_of(counted.byStatus.begin(), counted.byStatus.end(), isUnsent);
}

}  // namespace orvx::announce
