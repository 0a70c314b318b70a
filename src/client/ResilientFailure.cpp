// With resilience: which failures are transient, whether a failed request may have taken effect,
// and when to try again, including Retry-After. Entered by the I/O thread, by the timer's thread
// when a check times out, and the static functions by any thread.

#include "ResilientRecords.h"

#include <serviceregistryclient/OrvServiceRegistryContext.h>

#include <algorithm>
#include <charconv>
#include <ctime>
#include <iomanip>
#include <locale>
#include <optional>
#include <sstream>

namespace orvx::serviceregistryclient {

using communication::CommunicationStatus;

namespace {

/// The three forms of a date in RFC 9110, section 5.6.7; absent for any other text.
std::optional<std::time_t> httpDate(const std::string& text) {
    for (const char* const format :
         {"%a, %d %b %Y %H:%M:%S GMT", "%A, %d-%b-%y %H:%M:%S GMT", "%a %b %e %H:%M:%S %Y"}) {
        std::tm date{};
        std::istringstream in(text);
        in.imbue(std::locale::classic());
        in >> std::get_time(&date, format);
        if (in.fail()) {
            continue;
        }
        const std::time_t time = timegm(&date);  // corrects the day of the week
        // std::get_time() is lenient: the text is a date if the date is written like the text.
        std::ostringstream out;
        out.imbue(std::locale::classic());
        out << std::put_time(&date, format);
        if (out.str() == text) {
            return time;
        }
    }
    return std::nullopt;
}

}  // namespace

void OrvServiceRegistryClient::ResilientUpkeep::failLocked(Entry& entry, const char* method,
                                                           const HttpResponse& response) {
    const Milliseconds time = now();
    const auto failure = RegistrationFacts::failureOf(method, response, time);
    if (const auto retryAfter = response.getHeader("Retry-After")) {
        entry.notBefore = time + delayOf(*retryAfter, client_.timer.systemNow());
    }
    for (Member* const member : entry.members) {
        client_.logger->logWarning(false) << failure->text << ", id=" << member->first;
        Upkeep::failLocked(member->first, *member->second.request, member->second.facts, failure);
    }
}

/// Whether the same request may succeed later.
bool OrvServiceRegistryClient::ResilientUpkeep::isTransient(const HttpResponse& response) const {
    switch (response.getCommunicationStatus()) {
        case CommunicationStatus::Ok:
            break;
        case CommunicationStatus::InvalidRequest:
        case CommunicationStatus::NoSession:
            return false;
        default:
            return true;
    }
    switch (static_cast<int>(response.getStatusCode())) {
        case 408:  // Request Timeout
        case 425:  // Too Early
        case 429:  // Too Many Requests
        case 500:  // Internal Server Error
        case 502:  // Bad Gateway
        case 503:  // Service Unavailable
        case 504:  // Gateway Timeout
            return true;
        default:
            return client_.context.isRetryOnHttpStatusEnabled() &&
                   client_.context.getHttpStatusCodesForRetry().count(response.getStatusCode()) !=
                       0;
    }
}

/// Whether the registry may have processed the request.
bool OrvServiceRegistryClient::ResilientUpkeep::mayHaveTakenEffect(const HttpResponse& response) {
    switch (response.getCommunicationStatus()) {
        case CommunicationStatus::Ok: {
            const int status = static_cast<int>(response.getStatusCode());
            const bool isRefused =  // not supported, not this version, no room, not logged in
                status == 501 || status == 505 || status == 507 || status == 511;
            return status < 300 || status == 408 || (status >= 500 && !isRefused);
        }
        case CommunicationStatus::InvalidRequest:
        case CommunicationStatus::NoSession:
        case CommunicationStatus::ResolveFailed:
        case CommunicationStatus::ConnectFailed:
            return false;
        default:
            return true;
    }
}

std::chrono::milliseconds OrvServiceRegistryClient::ResilientUpkeep::backOffLocked(Entry& entry) {
    if (!entry.backoff) {
        const auto step =
            std::max<Milliseconds::rep>(client_.context.getRetryInterval().count(), 0);
        entry.backoff = std::make_unique<communication::QunaConnectionBackoffSequence>(
            4, static_cast<std::uint64_t>(step));
    }
    return std::max(entry.backoff->nextDelay(), kShortestPause);
}

std::chrono::milliseconds OrvServiceRegistryClient::ResilientUpkeep::delayOf(
    const std::string& retryAfter, std::chrono::system_clock::time_point time) {
    const char* const end = retryAfter.data() + retryAfter.size();
    std::uint64_t seconds = 0;
    const auto [rest, error] = std::from_chars(retryAfter.data(), end, seconds);
    if (rest == end && !retryAfter.empty()) {
        const auto longest = static_cast<std::uint64_t>(kLongestRetryAfter.count()) / 1000;
        return error == std::errc() && seconds < longest
                   ? Milliseconds(1000 * static_cast<Milliseconds::rep>(seconds))
                   : kLongestRetryAfter;
    }
    const std::optional<std::time_t> date = httpDate(retryAfter);
    if (!date) {
        return Milliseconds::zero();
    }
    const std::chrono::seconds delay(*date - std::chrono::system_clock::to_time_t(time));
    return std::clamp<Milliseconds>(delay, Milliseconds::zero(), kLongestRetryAfter);
}

}  // namespace orvx::serviceregistryclient
