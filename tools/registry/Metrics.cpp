// Writes the metrics as text. All unknown methods count as one, so that no client can make the text
// grow without limit.
// Runs on the server's thread, or a test's thread.
// There is no lock.

#include "Metrics.h"

#include <algorithm>
#include <boost/beast/http/status.hpp>
#include <limits>
#include <sstream>
#include <string_view>
#include <utility>

namespace orvx::registry {

namespace http = boost::beast::http;

namespace {

void writeHeader(std::ostream& text, std::string_view name, std::string_view type,
                 std::string_view help) {
    text << "# HELP " << name << ' ' << help << "\n# TYPE " << name << ' ' << type << '\n';
}

template <typename Number>
void add(std::ostream& text, std::string_view name, std::string_view type, std::string_view help,
         Number value) {
    writeHeader(text, name, type, help);
    text << name << ' ' << value << '\n';
}

}  // namespace

void Metrics::countRequest(http::verb method, unsigned status,
                           std::chrono::steady_clock::duration duration) {
    ++requests_[{method, status}];
    const double seconds = std::chrono::duration<double>(duration).count();
    const auto bound = std::lower_bound(kDurations.begin(), kDurations.end(), seconds);
    ++durations_[static_cast<std::size_t>(bound - kDurations.begin())];
    secondsOfRequests_ += seconds;
}

std::string Metrics::text(const EntryStore& store, std::size_t faults) const {
    std::ostringstream text;
    add(text, "orvx_registry_entries", "gauge", "Entries that the registry holds.",
        store.entries().size());
    add(text, "orvx_registry_entries_limit", "gauge", "Entries that the registry may hold.",
        store.options().maxEntries);
    add(text, "orvx_registry_expirations_total", "counter",
        "Entries that were not renewed in time.", store.expirations());
    add(text, "orvx_registry_moves_total", "counter",
        "Puts of another host or port at the path of a living service.", moves_);
    add(text, "orvx_registry_faults", "gauge", "Faults on demand that are set.", faults);
    writeHeader(text, "orvx_registry_requests_total", "counter",
                "Requests by method and status of the answer; code 0: the connection was reset.");
    for (const auto& [request, count] : requests_) {
        const auto& [method, code] = request;
        text << "orvx_registry_requests_total{method=\""
             << (method == http::verb::unknown ? "other" : http::to_string(method)) << "\",code=\""
             << code << "\"} " << count << '\n';
    }
    writeHeader(text, "orvx_registry_request_duration_seconds", "histogram",
                "From a whole request to its answer, without the time that the network takes.");
    std::uint64_t count = 0;
    for (std::size_t i = 0; i < durations_.size(); ++i) {
        count += durations_[i];
        text << "orvx_registry_request_duration_seconds_bucket{le=\"";
        i < kDurations.size() ? text << kDurations[i] : text << "+Inf";
        text << "\"} " << count << '\n';
    }
    // Six digits would make a sum of weeks stand still.
    const auto digits = text.precision(std::numeric_limits<double>::max_digits10);
    text << "orvx_registry_request_duration_seconds_sum " << secondsOfRequests_ << '\n';
    text.precision(digits);
    text << "orvx_registry_request_duration_seconds_count " << count << '\n';
    add(text, "orvx_registry_watchers", "gauge", "Readers of the stream of changes.", watchers_);
    writeHeader(text, "orvx_registry_drops_total", "counter",
                "Connections that were ended without an answer, by reason.");
    constexpr const char* kReasons[] = {"handshake", "timeout", "connections", "rate"};
    for (std::size_t i = 0; i < drops_.size(); ++i) {
        text << "orvx_registry_drops_total{reason=\"" << kReasons[i] << "\"} " << drops_[i] << '\n';
    }
    writeHeader(text, "orvx_registry_lost_log_lines_total", "counter",
                "Lines of a log that could not be written, or that nobody read in time.");
    const std::pair<const char*, std::uint64_t> lost[] = {{"requests", lostLines_[0]},
                                                          {"audit", lostLines_[1]}};
    for (const auto& [log, lines] : lost) {
        text << "orvx_registry_lost_log_lines_total{log=\"" << log << "\"} " << lines << '\n';
    }
    return text.str();
}

}  // namespace orvx::registry
