// Parses the requests in the bytes that the proxy's taps observe, checks their form, and counts
// them by target and second.
//
// Threads: taps run on the proxy's thread, everything else on any thread. mutex_ guards the counts
// and is a leaf lock.

#include "Traffic.h"

#include <algorithm>
#include <deque>
#include <nlohmann/json.hpp>
#include <optional>
#include <utility>

namespace orvx::stress {

using std::chrono::duration_cast;
using std::chrono::milliseconds;
using testing::Request;
using utility::MutexLock;

namespace {

std::int64_t secondOf(Traffic::Time time) {
    return std::chrono::duration_cast<std::chrono::seconds>(time.time_since_epoch()).count();
}

bool isEntry(const std::string& target) {
    return target.size() == 37 && target[0] == '/' &&
           target.find_first_not_of("0123456789abcdef-", 1) == std::string::npos;
}

/// Whether the description is one that this program's users register under the path.
bool describes(const std::string& body, const std::string& target) {
    const auto json = nlohmann::json::parse(body, nullptr, false);
    return json.is_object() && !json.contains("id") && '/' + json.value("name", "") == target &&
           json.value("uri", "") == target && json.contains("versions");
}

bool isPrintable(const std::string& line) {
    return std::all_of(line.begin(), line.end(), [](char c) { return c >= ' ' && c <= '~'; });
}

bool isWellFormed(const Request& request) {
    const auto& lines = request.headerLines;
    if (request.version != "HTTP/1.1" || !request.header("Host") ||
        !std::all_of(lines.begin(), lines.end(), isPrintable)) {
        return false;
    }
    const bool isJson = request.header("Content-Type") == "application/json";
    if (request.method == "PUT") {
        return isJson && describes(request.body, request.target);
    }
    return request.body.empty() && isEntry(request.target) &&
           (request.method == "HEAD" || (request.method == "DELETE" && isJson));
}

/// Whether the header of the answer is complete.
bool isHeader(const std::string& answer) {
    return answer.find("\r\n\r\n") != std::string::npos;
}

/// The entry that the answer to a PUT names; empty if it names none.
std::string locationIn(const std::string& answer) {
    constexpr std::string_view kName = "\r\nLocation: ";
    const std::size_t name = answer.find(kName);
    if (name == std::string::npos) {
        return "";
    }
    const std::size_t begin = name + kName.size();
    return answer.substr(begin, answer.find("\r\n", begin) - begin);
}

/// The path without the number at its end.
std::string ownerOf(const std::string& path) {
    return path.substr(0, path.find_last_not_of("0123456789") + 1);
}

/// Whether these bytes may be the beginning of a request.
bool mayBecomeRequest(const std::string& bytes) {
    const auto begins = [&bytes](const std::string& text) {
        return bytes.compare(0, text.size(), text, 0, bytes.size()) == 0;
    };
    return begins("PUT /") || begins("HEAD /") || begins("DELETE /");
}

}  // namespace

/// One connection: requests and answers alternate on it.
class Traffic::Tap final : public ITap {
  public:
    explicit Tap(Traffic& traffic) : traffic_(traffic) {}

    // A kept connection that ends, perhaps without an answer: an HTTP client may repeat its last
    // request once over another connection. The first request of a connection is never repeated.
    ~Tap() override {
        traffic_.noteAnswer(*this);
        if (requests_ > 1) {
            traffic_.allowResend(method_, target_);
        }
        if (!mayBecomeRequest(input_)) {
            traffic_.noteMalformed(input_);
        }
    }

    void sentByClient(std::string_view bytes) override {
        input_ += bytes;
        while (const std::optional<Request> request = testing::firstRequest(input_)) {
            input_.erase(0, request->raw.size());
            taken_ += request->raw.size();
            if (request->method == "PUT") {
                puts_.emplace_back(taken_, *request);
            }
            ++requests_;
            method_ = request->method;
            target_ = request->target;
            answer_.clear();
            traffic_.note(*this, *request);
        }
    }

    void sentByServer(std::string_view bytes) override {
        traffic_.noteAnswer(*this);
        constexpr std::string_view kMissing = "HTTP/1.1 404";
        if (isHeader(answer_)) {
            return;
        }
        const bool hadStatus = answer_.size() >= kMissing.size();
        answer_ += bytes;
        if (!hadStatus && answer_.compare(0, kMissing.size(), kMissing) == 0) {
            traffic_.noteMissing(method_, target_);
        }
        if (method_ == "PUT" && isHeader(answer_)) {
            traffic_.noteEntry(target_, locationIn(answer_));
        }
    }

    void reachedServer(std::size_t bytes, bool isLate) override {
        arrived_ += bytes;
        while (!puts_.empty() && puts_.front().first <= arrived_) {
            traffic_.noteArrival(puts_.front().second, isLate);
            puts_.pop_front();
        }
    }

  private:
    Traffic& traffic_;
    std::string input_;
    std::size_t taken_ = 0;
    std::size_t arrived_ = 0;
    /// The requests that have not reached the server yet, and the positions of their ends.
    std::deque<std::pair<std::size_t, Request>> puts_;
    std::size_t requests_ = 0;
    std::string method_;
    std::string target_;
    /// From its begin, at least up to the end of its header.
    std::string answer_;
};

FaultProxy::TapMaker Traffic::tapMaker() {
    return [this] { return std::make_unique<Tap>(*this); };
}

void Traffic::expectPuts(const std::string& path) {
    const MutexLock lock(mutex_);
    ++methods_["PUT"][path].seconds[secondOf(now_())].registrations;
}

void Traffic::expectChecks(const std::string& owner) {
    const MutexLock lock(mutex_);
    ++starts_[owner][secondOf(now_())].starts;
}

void Traffic::note(const Tap& tap, const Request& request) {
    if (!isWellFormed(request)) {
        noteMalformed(request.raw);
    }
    const Time now = now_();
    const MutexLock lock(mutex_);
    Target& target = methods_[request.method][request.target];
    target.requests.push_back(now);
    ++target.seconds[secondOf(now)].requests;
    if (request.method == "HEAD") {
        unanswered_[&tap] = now;
    }
}

void Traffic::noteAnswer(const Tap& tap) {
    const Time now = now_();
    const MutexLock lock(mutex_);
    const auto check = unanswered_.find(&tap);
    if (check != unanswered_.end()) {
        answered_.note(now, duration_cast<milliseconds>(now - check->second));
        unanswered_.erase(check);
    }
}

void Traffic::noteArrival(const Request& put, bool isLate) {
    const auto json = nlohmann::json::parse(put.body, nullptr, false);
    if (!json.is_object()) {
        return;
    }
    const std::pair<std::string, std::string> which(put.target, json.value("description", ""));
    const MutexLock lock(mutex_);
    if (isLate) {
        late_.insert(which);
    } else {
        late_.erase(which);
    }
}

void Traffic::noteMalformed(std::string what) {
    const MutexLock lock(mutex_);
    malformed_.push_back(std::move(what));
}

void Traffic::noteMissing(const std::string& method, const std::string& target) {
    const MutexLock lock(mutex_);
    methods_[method][target].missing.push_back(now_());
}

void Traffic::noteEntry(const std::string& path, const std::string& target) {
    const MutexLock lock(mutex_);
    paths_[target] = path;
}

void Traffic::allowResend(const std::string& method, const std::string& target) {
    const MutexLock lock(mutex_);
    ++methods_[method][target].seconds[secondOf(now_())].resends;
}

std::size_t Traffic::requests() const {
    const MutexLock lock(mutex_);
    std::size_t sum = 0;
    for (const auto& [method, targets] : methods_) {
        for (const auto& [name, target] : targets) {
            sum += target.requests.size();
        }
    }
    return sum;
}

std::vector<std::string> Traffic::malformed() const {
    const MutexLock lock(mutex_);
    return malformed_;
}

std::size_t Traffic::checksSince(const std::string& uuid, Time begin) const {
    const MutexLock lock(mutex_);
    const auto heads = methods_.find("HEAD");
    if (heads == methods_.end() || heads->second.count('/' + uuid) == 0) {
        return 0;
    }
    const auto& times = heads->second.at('/' + uuid).requests;
    return static_cast<std::size_t>(times.end() -
                                    std::lower_bound(times.begin(), times.end(), begin));
}

milliseconds Traffic::longestCheck(Time since) const {
    const MutexLock lock(mutex_);
    const Time now = now_();
    milliseconds longest = answered_.since(since);
    for (const auto& [tap, begin] : unanswered_) {
        longest = std::max(longest, duration_cast<milliseconds>(now - begin));
    }
    return longest;
}

bool Traffic::wasMissing(const std::string& uuid, Time begin, Time end) const {
    const MutexLock lock(mutex_);
    const auto heads = methods_.find("HEAD");
    if (heads == methods_.end() || heads->second.count('/' + uuid) == 0) {
        return false;
    }
    const auto& times = heads->second.at('/' + uuid).missing;
    const auto first = std::lower_bound(times.begin(), times.end(), begin);
    return first != times.end() && *first <= end;
}

bool Traffic::cameLate(const std::string& path, const std::string& description) const {
    const MutexLock lock(mutex_);
    return late_.count({path, description}) != 0;
}

/// The sum of this second and the ones before and after it.
Traffic::Second Traffic::around(const Seconds& seconds, std::int64_t second) {
    Second sum;
    for (auto near = seconds.lower_bound(second - 1);
         near != seconds.end() && near->first <= second + 1; ++near) {
        sum.requests += near->second.requests;
        sum.resends += near->second.resends;
        sum.registrations += near->second.registrations;
        sum.starts += near->second.starts;
    }
    return sum;
}

template <typename Allowed>
Traffic::Load Traffic::load(const std::string& method, const Allowed& allowed) const {
    const MutexLock lock(mutex_);
    Load load;
    const auto found = methods_.find(method);
    if (found == methods_.end()) {
        return load;
    }
    for (const auto& [name, target] : found->second) {
        for (const auto& [second, counts] : target.seconds) {
            load.add(counts.requests, allowed(around(target.seconds, second)));
        }
    }
    return load;
}

// One registration at a time has this path. With a retry interval of 20 ms its attempts are at
// least 10, 20, 40, 80 and then 160 ms apart, so there are at most 10 in a second. Limited retries,
// which are 20 ms apart, end after 4. A registration that replaces it in the same second has as
// many again.
Traffic::Load Traffic::puts(std::size_t rows) const {
    return load("PUT", [rows](const Second& near) {
        return 10 * (rows + near.registrations) + near.resends;
    });
}

// The next check begins one interval, 1 s, after the answer to the previous one: there is one in a
// second, or two if their delays on the way differ.
Traffic::Load Traffic::checks() const {
    return load("HEAD", [](const Second& near) { return 2 + near.resends; });
}

Traffic::Load Traffic::checksAndRecoveries() const {
    const MutexLock lock(mutex_);
    Load load;
    const auto found = methods_.find("HEAD");
    if (found != methods_.end()) {
        for (const auto& [entry, target] : found->second) {
            for (const auto& [second, counts] : target.seconds) {
                load.add(counts.requests,
                         allowedChecks(entry, second) + around(target.seconds, second).resends);
            }
        }
    }
    return load;
}

// A recovery makes the next check due earlier, and the next recovery comes a second later at the
// earliest. A start of the client does so, too, at any time. A PUT begins a new sequence of checks.
std::size_t Traffic::allowedChecks(const std::string& entry, std::int64_t second) const {
    std::size_t allowed = 3;
    const auto path = paths_.find(entry);
    if (path == paths_.end()) {
        return allowed;
    }
    const Target& puts = methods_.at("PUT").at(path->second);
    allowed += around(puts.seconds, second).requests > 0 ? 1 : 0;
    const auto starts = starts_.find(ownerOf(path->second));
    if (starts != starts_.end()) {
        allowed += around(starts->second, second).starts;
    }
    return allowed;
}

std::size_t Traffic::deletes() const {
    const MutexLock lock(mutex_);
    std::size_t sum = 0;
    const auto found = methods_.find("DELETE");
    if (found != methods_.end()) {
        for (const auto& [name, target] : found->second) {
            sum += target.requests.size();
        }
    }
    return sum;
}

std::size_t Traffic::resends(const std::string& method) const {
    const MutexLock lock(mutex_);
    std::size_t sum = 0;
    const auto found = methods_.find(method);
    if (found != methods_.end()) {
        for (const auto& [name, target] : found->second) {
            for (const auto& [second, counts] : target.seconds) {
                sum += counts.resends;
            }
        }
    }
    return sum;
}

}  // namespace orvx::stress
