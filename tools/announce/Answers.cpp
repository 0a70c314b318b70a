// What the library and its statistics know, in words and figures.
// Everything happens on the main thread; there is no lock.

#include "Answers.h"

#include <nlohmann/json.hpp>

#include <algorithm>

#include "Report.h"

namespace orvx::announce {

using communication::ClientStatistics;
using communication::CommunicationStatus;
using nlohmann::json;
using serviceregistryclient::OrvRegistrationResponse;

namespace {

constexpr std::size_t kLongestBody = 200;

json describe(ClientStatistics::Method method, const ClientStatistics::Last& last) {
    json answer{{"method", communication::methodToString(method)},
                {"outcome", communication::communicationStatusToString(last.status)},
                {"when", timestamp(last.when)}};
    if (last.httpStatus != 0) {
        answer["httpStatus"] = last.httpStatus;
    }
    return answer;
}

}  // namespace

std::string toText(const OrvRegistrationResponse& outcome) {
    if (!outcome.httpResponse) {
        return OrvRegistrationResponse::errorCodeString(outcome.errorCode);
    }
    const auto& response = *outcome.httpResponse;
    const auto code = static_cast<int>(response.getStatusCode());
    if (code == 0) {
        return communication::communicationStatusToString(response.getCommunicationStatus());
    }
    std::string text = "HTTP " + std::to_string(code);
    if (response.getContentLength() > 0) {
        text += ": " + response.getBody().substr(0, kLongestBody);
    }
    return text;
}

json toJson(const ClientStatistics::Snapshot& counted, std::uint64_t announced) {
    const auto& puts = counted.byMethod.at(ClientStatistics::Method::Put);
    const auto& checks = counted.byMethod.at(ClientStatistics::Method::Head);
    json figures{{"retries", puts.completed - std::min(puts.completed, announced)},
                 {"checks", checks.completed}};
    const auto confirmed = std::max(puts.lastGood, checks.lastGood);
    if (confirmed) {
        figures["lastConfirmed"] = timestamp(*confirmed);
    }
    const ClientStatistics::Last* newest = nullptr;
    for (const auto& [method, counts] : counted.byMethod) {
        if (counts.last && (newest == nullptr || counts.last->when >= newest->when)) {
            newest = &*counts.last;
            figures["lastAnswer"] = describe(method, *newest);
        }
    }
    return figures;
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
