#pragma once

#include "RandomHistory.h"
#include "RecordingLogger.h"

#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <ostream>
#include <set>
#include <string>
#include <tuple>
#include <vector>

namespace orvx::simulation {

/// An answer to a request. Status 0: the request ends without an answer.
struct Answer {
    std::string communicationStatus;
    int status = 0;
    std::optional<std::string> location;
    std::string body;
};

/// A request that was sent.
struct Sent {
    std::string method;
    std::string path;
    std::string body;

    bool operator==(const Sent& other) const {
        return std::tie(method, path, body) == std::tie(other.method, other.path, other.body);
    }
    friend std::ostream& operator<<(std::ostream& stream, const Sent& sent) {
        return stream << sent.method << ' ' << sent.path << ' ' << sent.body;
    }
};

/// One call of user code, as a line of text.
using Told = std::string;

/// The rules of the client, written as simply as possible: one thread, no index, no lock, and walks
/// over the whole table. After each event it has the requests, log lines, calls and timers that the
/// client must have.
class Model {
  public:
    explicit Model(Options options) : options_(options) {}

    // The events.

    /// Returns the number of its unregister handle.
    std::size_t registerService(const std::string& name, const std::string& label);
    void withdraw(std::size_t handle, const std::string& label);
    void withdrawAll(const std::string& label);
    void setListener(const std::string& label) { listener_ = label; }
    void removeListener() { listener_.clear(); }
    void answer(std::size_t outstanding, const Answer& answer);
    void advance(Milliseconds duration);
    void start() { initiated_ = true; }
    void stop();
    /// The executor and the I/O thread run their tasks.
    void runIo();
    std::vector<Told> settle();

    // The expected results.

    std::vector<testing::LogLine> takeLines() { return std::exchange(lines_, {}); }
    std::vector<Sent> takeSent() { return std::exchange(sent_, {}); }
    /// Takes over the delays that the client has requested. Returns the difference; empty if they
    /// are as expected.
    std::string reconcile(const std::vector<Milliseconds>& delays);
    std::vector<Milliseconds> pendingDelays() const;
    /// Each registration's request id, state and registry id, and the state of the check.
    std::vector<std::string> table() const;
    std::size_t outstanding() const { return outstanding_.size(); }
    const std::string& methodOf(std::size_t outstanding) const {
        return outstanding_[outstanding].method;
    }
    std::size_t handles() const { return handles_.size(); }
    /// The current registry ids in the descriptions.
    std::vector<std::string> registryIds() const;

  private:
    struct Description {
        std::string name;
        std::optional<std::string> id;
        std::string uri;
        std::string requestUri;
        std::string body;
    };
    using Request = std::shared_ptr<Description>;
    struct Record {
        Request request;
        std::vector<std::string> registerCallbacks;
        std::vector<std::string> unregisterCallbacks;
        int state = 0;
        bool wasRegistered = false;
        unsigned retries = 0;
        unsigned backoffs = 0;
    };
    struct Outstanding {
        std::string method;
        std::uint64_t id;
        Request request;
    };
    enum class Due { Put, Head, HeadTimeout };
    struct Timer {
        Milliseconds due;
        std::uint64_t number;
        Due what;
        std::uint64_t id;
        Request request;
    };
    struct Added {
        std::uint64_t number;
        Milliseconds least;
        Milliseconds most;
    };
    struct Handle {
        std::uint64_t id;     // 0: the registration was refused
        std::string refusal;  // the log line of a call of the handle
    };

    void log(int level, const std::string& text) { lines_.push_back({level, text}); }
    void tell(const std::string& label, const std::string& outcome, int http);
    void notify(const Description& description, bool registered);
    void plan(Due what, std::uint64_t id, const Request& request, Milliseconds least,
              Milliseconds most);
    Milliseconds checkDelay() const { return options_.checkInterval; }
    void send(const std::string& method, std::uint64_t id, const Request& request,
              const std::string& path, const std::string& body);

    void sendPut(std::uint64_t id, const Request& request);
    void sendHead(std::uint64_t id, const Request& request);
    void headTimeout();
    void unregister(std::uint64_t id, const std::string& label);
    void handlePut(std::uint64_t id, const Request& request, const Answer& answer);
    void handlePutError(std::uint64_t id, const Request& request, const Answer& answer);
    bool retry(std::uint64_t id, const Request& request, Record& record, const Answer& answer);
    void handleHead(std::uint64_t id, const Request& request, const Answer& answer);
    void handleDelete(std::uint64_t id, const Answer& answer);
    std::vector<std::string> removeRecord(std::uint64_t id);

    const Options options_;
    bool initiated_ = true;
    std::uint64_t lastId_ = 0;
    std::map<std::uint64_t, std::shared_ptr<Record>> table_;
    int checkState_ = 0;
    std::string listener_;
    std::vector<Handle> handles_;

    Milliseconds now_{0};
    std::vector<Timer> timers_;
    std::vector<Added> added_;
    std::uint64_t timersMade_ = 0;
    std::vector<Outstanding> outstanding_;
    std::deque<Outstanding> abandoned_;
    std::deque<Told> executor_;

    std::vector<testing::LogLine> lines_;
    std::vector<Sent> sent_;
};

/// "LABEL: OUTCOME http=CODE", the form of callbacks on both sides.
Told told(const std::string& label, const std::string& outcome, int http);

}  // namespace orvx::simulation
