// The registry tool under load, beside nginx that answers HEAD of a file, asked in the same way.
// Requests are sent at planned times, and their latency counts from then. All servers are processes
// of scripts/bench, on the last processor, one of them busy at a time; this is on the first. Usage:
//   orvx_bench_registry load REGISTRY_PORT REGISTRY_PROCESS NGINX_PORT ENTRIES ROUNDS SECONDS
//   WATCHERS orvx_bench_registry changes PORT ENTRIES OTHER_PORT MORE_ENTRIES ROUNDS

#include "KeptConnections.h"
#include "Measure.h"
#include "Requests.h"
#include "Watchers.h"

#include <unistd.h>

#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <string>

namespace orvx::benchmarks {

namespace {

using std::chrono::milliseconds;
using std::chrono::nanoseconds;

constexpr std::size_t kCheckConnections = 100;
constexpr std::size_t kCheckRate = 4'000;
constexpr std::size_t kChangeConnections = 16;
constexpr std::size_t kChangeRate = 100;
constexpr std::chrono::seconds kLongestRest{60};

std::string head(const std::string& target) {
    return "HEAD " + target + " HTTP/1.1\r\nHost: 127.0.0.1\r\nUser-Agent: " + kUserAgent +
           "\r\n\r\n";
}

std::string put(const std::string& path, const std::string& body) {
    return "PUT " + path + " HTTP/1.1\r\nHost: 127.0.0.1\r\nUser-Agent: " + kUserAgent +
           "\r\nContent-Type: application/json\r\nAccept: application/json\r\nContent-Length: " +
           std::to_string(body.size()) + "\r\n\r\n" + body;
}

Time plannedAt(Time begin, std::size_t number, std::size_t rate) {
    return begin + nanoseconds(std::chrono::seconds(1)) * number / rate;
}

/// Reads until every request is answered. Throws if that takes too long.
void finish(KeptConnections& connections, const std::initializer_list<Source*>& sources) {
    const Time end = Time::clock::now() + kLongestRest;
    while (connections.outstanding() != 0) {
        receiveUntil(Time::clock::now() + milliseconds(1), sources);
        require(Time::clock::now() < end, "not everything was answered");
    }
}

double residentBytes(const std::string& process) {
    std::ifstream file("/proc/" + process + "/status");
    for (std::string word; file >> word;) {
        if (word == "VmRSS:") {
            double kibibytes = 0;
            file >> kibibytes;
            return kibibytes * 1024;
        }
    }
    throw std::runtime_error("no such process");
}

/// User and system time so far, in microseconds, with the resolution of the kernel's tick.
double processorTime(const std::string& process) {
    std::ifstream file("/proc/" + process + "/stat");
    const std::string text(std::istreambuf_iterator<char>(file), {});
    std::istringstream fields(text.substr(text.rfind(')') + 1));
    std::string skipped;
    for (int i = 0; i < 11; ++i) {
        fields >> skipped;
    }
    double user = 0;
    double system = 0;
    require(static_cast<bool>(fields >> user >> system), "no such process");
    return (user + system) * 1e6 / static_cast<double>(::sysconf(_SC_CLK_TCK));
}

/// The port of a server, and its process.
struct Server {
    std::uint16_t port = 0;
    std::string process{};
};

/// A registry, and the entries that were created there.
class Registry {
  public:
    /// Throws if the registry is not empty.
    Registry(Server server, std::size_t entries) : server_(std::move(server)), count_(entries) {
        KeptConnections connections(server_.port, kChangeConnections);
        connections.onAnswer([this](std::string_view answer) { addHead(answer); });
        for (std::size_t i = 0; i < entries; ++i) {
            const Time now = Time::clock::now();
            texts_ += pathOf(i).size() + bodyOf(i, now).size();
            connections.send(put(pathOf(i), bodyOf(i, now)), now);
            if (i % 1'000 == 999) {
                finish(connections, {&connections});
            }
        }
        finish(connections, {&connections});
    }

    const Server& server() const { return server_; }
    /// The number of bytes of all paths and services.
    double texts() const { return static_cast<double>(texts_); }

    /// Consecutive entries are not adjacent in memory.
    const std::string& check(std::size_t number) const { return heads_[indexOf(number)]; }
    /// Returns each entry once before it repeats: no change replaces another one that is not sent
    /// yet.
    std::string change(std::size_t number, Time planned) const {
        return put(pathOf(indexOf(number)), bodyOf(indexOf(number), planned));
    }

  private:
    std::size_t indexOf(std::size_t number) const { return number * 7919 % count_; }

    static std::string pathOf(std::size_t index) { return makeService(index)->getUri(); }

    /// The text always has the same length.
    static std::string bodyOf(std::size_t index, Time time) {
        return std::string(kChanged) +
               std::to_string(nanoseconds(time.time_since_epoch()).count()) + ',' +
               jsonOf(*makeService(index)).substr(1);
    }

    void addHead(std::string_view answer) {
        constexpr std::string_view kLocation = "\r\nLocation: ";
        require(answer.substr(9, 3) == "201", "the registry has entries already");
        const auto begin = answer.find(kLocation) + kLocation.size();
        heads_.push_back(head(std::string(answer.substr(begin, answer.find('\r', begin) - begin))));
    }

    const Server server_;
    const std::size_t count_;
    std::size_t texts_ = 0;
    std::vector<std::string> heads_;
};

/// The figures of one server, one for each round.
struct Figures {
    std::vector<double> answered;  // per second
    std::vector<double> median;
    std::vector<double> late;  // the 99th percentile
    std::vector<double> cost;  // processor time of the server, in microseconds for a check
    std::vector<double> most;  // the maximum per second

    void print(const std::string& name) const {
        Line(name)
            .add("answered", answered)
            .add("median", median)
            .add("99th percentile", late)
            .add("cost", cost)
            .add("most", most)
            .print();
    }
};

/// Sends checks to one server.
class Checks {
  public:
    Checks(const Server& server, std::function<const std::string&(std::size_t)> request)
        : process_(server.process),
          connections_(server.port, kCheckConnections),
          request_(std::move(request)) {}

    KeptConnections& connections() { return connections_; }
    void send(Time planned) { connections_.send(request_(next_++), planned); }

    void measure(std::size_t seconds, Figures& figures) {
        const std::size_t count = seconds * kCheckRate;
        const double before = processorTime(process_);
        const Time begin = Time::clock::now() + milliseconds(1);
        for (std::size_t i = 0; i < count; ++i) {
            const Time planned = plannedAt(begin, i, kCheckRate);
            receiveUntil(planned, {&connections_});
            send(planned);
        }
        const std::size_t late = connections_.outstanding();
        finish(connections_, {&connections_});
        figures.answered.push_back(static_cast<double>(count - late) /
                                   static_cast<double>(seconds));
        figures.cost.push_back((processorTime(process_) - before) / static_cast<double>(count));
        const auto latencies = connections_.takeLatencies();
        figures.median.push_back(quantile(latencies, 0.5));
        figures.late.push_back(quantile(latencies, 0.99));
        figures.most.push_back(most());
    }

  private:
    double most() {
        constexpr std::size_t kCount = 20'000;
        const double each = wallPer(kCount, [this] {
            for (std::size_t i = 0; i < kCount; ++i) {
                send(Time());
            }
            finish(connections_, {&connections_});
        });
        connections_.takeLatencies();
        return 1e6 / each;
    }

    const std::string process_;
    KeptConnections connections_;
    const std::function<const std::string&(std::size_t)> request_;
    std::size_t next_ = 0;
};

Checks checksAt(const Registry& registry) {
    return Checks(registry.server(), [&registry](std::size_t number) -> const std::string& {
        return registry.check(number);
    });
}

void compareChecks(const Registry& registry, const Server& other, std::size_t rounds,
                   std::size_t seconds) {
    const std::string file = head("/entry.json");
    Checks otherChecks(other, [&file](std::size_t) -> const std::string& { return file; });
    Checks ownChecks = checksAt(registry);
    Figures otherFigures;
    Figures ownFigures;
    for (std::size_t i = 0; i < rounds; ++i) {
        otherChecks.measure(seconds, otherFigures);
        ownChecks.measure(seconds, ownFigures);
    }
    otherFigures.print("nginx");
    ownFigures.print("registry");
}

/// Makes changes at a constant rate, which all watchers receive, and `checks` checks for each
/// change.
void watch(const std::string& name, const Registry& registry, std::size_t count,
           std::size_t seconds, std::size_t checksForChange) {
    Watchers watchers(registry.server().port, count);
    KeptConnections changes(registry.server().port, kChangeConnections);
    Checks checks = checksAt(registry);
    const std::initializer_list<Source*> sources{&checks.connections(), &changes, &watchers};
    receiveUntil(Time::clock::now() + std::chrono::seconds(2), sources);  // all streams have begun
    const std::size_t steps = std::max<std::size_t>(checksForChange, 1);
    const double before = processorTime(registry.server().process);
    const auto clientBefore = cpuTime();
    const Time begin = Time::clock::now() + milliseconds(1);
    for (std::size_t i = 0; i < seconds * kChangeRate * steps; ++i) {
        const Time planned = plannedAt(begin, i, kChangeRate * steps);
        receiveUntil(planned, sources);
        if (i % steps == 0) {
            changes.send(registry.change(i / steps, planned), planned);
        }
        if (checksForChange != 0) {
            checks.send(planned);
        }
    }
    const double all = static_cast<double>(seconds) * 1e6;
    const double share = (processorTime(registry.server().process) - before) / all;
    const double clientShare = static_cast<double>((cpuTime() - clientBefore).count()) / all;
    finish(changes, sources);
    finish(checks.connections(), sources);
    const std::size_t expected = seconds * kChangeRate * count;
    const Time end = Time::clock::now() + kLongestRest;
    while (watchers.changes() < expected && Time::clock::now() < end) {
        receiveUntil(Time::clock::now() + milliseconds(1), sources);
    }
    Line line(name);
    line.add("arrived", static_cast<double>(watchers.changes()) / static_cast<double>(expected))
        .add("lag", quantile(watchers.lags(), 0.99))
        .add("server", share)
        .add("client", clientShare);
    if (checksForChange != 0) {
        line.add("check", quantile(checks.connections().takeLatencies(), 0.99));
    }
    line.print();
}

double costOfChange(const Registry& registry, std::size_t round) {
    constexpr std::size_t kCount = 2'000;
    KeptConnections connections(registry.server().port, kChangeConnections);
    const Time now = Time::clock::now();
    return wallPer(kCount, [&] {
        for (std::size_t i = 0; i < kCount; ++i) {
            connections.send(registry.change(round * kCount + i, now), now);
        }
        finish(connections, {&connections});
    });
}

void compareChanges(const Registry& few, const Registry& many, std::size_t rounds) {
    std::vector<double> ratios;
    std::vector<double> costs;
    for (std::size_t i = 0; i < rounds; ++i) {
        const double before = costOfChange(few, i);
        costs.push_back(costOfChange(many, i));
        ratios.push_back(costs.back() / ((before + costOfChange(few, i)) / 2));
    }
    Line("change").add("ratio", ratios).add("microseconds", costs).print();
}

std::uint16_t portIn(const char* text) {
    return static_cast<std::uint16_t>(std::stoul(text));
}

void load(char** argv) {
    const Server server{portIn(argv[2]), argv[3]};
    const std::size_t entries = std::stoul(argv[6]);
    const std::size_t seconds = std::stoul(argv[8]);
    const std::size_t watchers = std::stoul(argv[9]);
    const double before = residentBytes(server.process);
    const Registry registry(server, entries);
    Line("memory")
        .add("bytes", (residentBytes(server.process) - before - registry.texts()) /
                          static_cast<double>(entries))
        .print();
    compareChecks(registry, {portIn(argv[4]), argv[5]}, std::stoul(argv[7]), seconds);
    watch("watchers", registry, watchers, seconds, 0);
    watch("watchers and checks", registry, watchers, seconds, kCheckRate / kChangeRate);
}

void changes(char** argv) {
    const Registry few({portIn(argv[2])}, std::stoul(argv[3]));
    const Registry many({portIn(argv[4])}, std::stoul(argv[5]));
    compareChanges(few, many, std::stoul(argv[6]));
}

}  // namespace

}  // namespace orvx::benchmarks

int main(int argc, char** argv) {
    using namespace orvx::benchmarks;
    useFirstProcessor();
    const std::string kind = argc > 1 ? argv[1] : "";
    if (kind == "load" && argc == 10) {
        load(argv);
    } else if (kind == "changes" && argc == 7) {
        changes(argv);
    } else {
        std::cerr << "the arguments are those of scripts/bench" << std::endl;
        return 2;
    }
}
