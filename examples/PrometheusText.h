// A client's registrations and requests in Prometheus' text format, version 0.0.4.
#pragma once

#include <serviceregistryclient/RegistrationStatus.h>

#include <orvx/communication/ClientStatistics.h>

#include <iomanip>
#include <locale>
#include <sstream>
#include <utility>
#include <vector>

class PrometheusText {
  public:
    using Labels = std::vector<std::pair<const char*, std::string>>;
    using Status = orvx::serviceregistryclient::RegistrationStatus;
    using Time = std::optional<std::chrono::system_clock::time_point>;

    PrometheusText() {
        text_.imbue(std::locale::classic());
        text_ << std::fixed << std::setprecision(3);
    }

    void add(const std::vector<Status>& registrations) {
        const auto gauge = [&](const std::string& name, const char* help,
                               std::optional<double> (*valueOf)(const Status&)) {
            metric("orvx_registration_" + name, "gauge", help);
            for (const Status& one : registrations) {
                if (const auto value = valueOf(one)) {
                    sample(labelsOf(one), *value);
                }
            }
        };
        metric("orvx_registration_state", "gauge", "1 for the state of the registration, or 0.");
        for (const Status& one : registrations) {
            for (int i = 0; i <= static_cast<int>(Status::State::Withdrawing); ++i) {
                Labels labels = labelsOf(one);
                labels.emplace_back("state", registrationStateToString(Status::State(i)));
                sample(labels, one.state == Status::State(i));
            }
        }
        gauge("attempts", "Requests since the last success.",
              [](const Status& one) { return std::optional<double>(one.attempts); });
        gauge("state_start_timestamp_seconds", "When the state began.",
              [](const Status& one) { return seconds(one.since); });
        gauge("last_confirmed_timestamp_seconds", "When the entry was last confirmed.",
              [](const Status& one) { return seconds(one.lastConfirmed); });
        gauge("last_failure_timestamp_seconds", "When a request last failed.",
              [](const Status& one) {
                  return one.lastFailure ? seconds(one.lastFailure->time) : std::nullopt;
              });
        gauge("next_attempt_timestamp_seconds", "When the next request is due.",
              [](const Status& one) { return seconds(one.nextAttempt); });
    }

    void add(const orvx::communication::ClientStatistics::Snapshot& counted) {
        metric("orvx_requests_total", "counter", "Requests that ended, by how they ended.");
        for (const auto& [method, of] : counted.byMethod) {
            for (const auto& [status, count] : of.byStatus) {
                sample({{"method", methodToString(method)},
                        {"status", communicationStatusToString(status)}},
                       count);
            }
        }
        metric("orvx_answers_total", "counter", "Answers, by their HTTP status.");
        for (const auto& [method, of] : counted.byMethod) {
            for (const auto& [code, count] : of.byHttpStatus) {
                sample({{"method", methodToString(method)}, {"code", std::to_string(code)}}, count);
            }
        }
    }

    std::string text() const { return text_.str(); }

  private:
    static std::optional<double> seconds(Time time) {
        return time ? std::optional(std::chrono::duration<double>(time->time_since_epoch()).count())
                    : std::nullopt;
    }
    /// The id distinguishes two registrations of one entry.
    static Labels labelsOf(const Status& one) {
        return {{"id", std::to_string(one.requestId)},
                {"service", one.name},
                {"uri", one.uri},
                {"registry", one.endpoint}};
    }
    /// Begins a metric. The following samples belong to it.
    void metric(const std::string& name, const char* type, const char* help) {
        name_ = name;
        text_ << "# HELP " << name << ' ' << help << "\n# TYPE " << name << ' ' << type << '\n';
    }
    template <typename Number>
    void sample(const Labels& labels, Number value) {
        const char* separator = "{";
        text_ << name_;
        for (const auto& [label, content] : labels) {
            text_ << std::exchange(separator, ",") << label << "=\"";
            for (const char c : content) {
                c == '\n' ? text_ << "\\n" : text_ << (c == '"' || c == '\\' ? "\\" : "") << c;
            }
            text_ << '"';
        }
        text_ << "} " << value << '\n';
    }

    std::string name_;
    std::ostringstream text_;
};
