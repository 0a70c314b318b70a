#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

namespace orvx::registry {

/// A fake of the JSON gateway of an etcd with one member, at any free port of 127.0.0.1. It keeps
/// keys, revisions and leases like etcd. A test decides which requests it carries out and answers,
/// and which events its watches send.
///
/// Thread-safety: any thread.
class FakeEtcd {
  public:
    using Json = nlohmann::json;

    struct Answer {
        Json body{};
        unsigned status = 200;  ///< 0: the connection ends without an answer
    };
    /// Answers a request on the thread of its connection. `carryOut` carries the request out like
    /// etcd. A script that waits blocks only its connection.
    using Script =
        std::function<Answer(const Json& request, const std::function<Answer()>& carryOut)>;

    /// The keys and their history at some time.
    struct Backup {
        struct Value {
            std::string value;
            std::uint64_t created;
            std::uint64_t modified;
        };
        struct Event {
            std::uint64_t revision;
            std::string key;
            Json event;
        };
        std::map<std::string, Value> keys{};
        std::vector<Event> events{};
        std::uint64_t revision = 1;
        std::string cluster{"1"};  ///< the id of the cluster
    };

    FakeEtcd();
    /// Waits until all scripts have returned.
    ~FakeEtcd();
    FakeEtcd(const FakeEtcd&) = delete;
    FakeEtcd& operator=(const FakeEtcd&) = delete;

    std::string url() const;

    /// Sets the script that answers a call such as "kv/txn" from now on. Empty: the call is
    /// answered as by etcd.
    void setScript(const std::string& call, Script script);
    /// An answer after which the client may try the next member.
    static Answer unavailable();

    /// Carries out a request of another client, without a script.
    Json ask(const std::string& call, const Json& request);
    void put(const std::string& key, const std::string& value);

    /// All requests of that call so far, except those of ask().
    std::vector<Json> requests(const std::string& call) const;
    /// Waits for that number of requests. Throws a std::runtime_error after 20 seconds.
    void awaitRequests(const std::string& call, std::size_t count) const;

    /// Delays the events of all watches until releaseEvents().
    void holdEvents();
    void releaseEvents();
    /// The existing watches send no further event, nor do watches that begin before endSilence().
    void silenceWatches();
    void endSilence();
    /// Cancels the watches, as if the history that they need had been compacted.
    void cancelWatches();
    /// Closes the connections of all watches.
    void endWatches();

    void forgetLeases();
    Backup backup() const;
    /// etcd restarts with the keys, the history and the cluster of the backup.
    void restore(const Backup& backup);

  private:
    struct Connection {
        explicit Connection(boost::asio::ip::tcp::socket accepted) : socket(std::move(accepted)) {}
        boost::asio::ip::tcp::socket socket;
        bool isWatch = false;
        bool isSilent = false;
        bool isCanceled = false;
        bool isEnded = false;
    };

    void accept();
    void serve(Connection& connection);
    void serveWatch(Connection& connection, const Json& create);
    Answer answer(const std::string& call, const Json& request);
    Answer carryOut(const std::string& call, const Json& request);
    Json range(const Json& request) const;
    Json transaction(const Json& request);
    void write(const Json& request, std::uint64_t revision);
    void remove(const Json& request, std::uint64_t revision);
    Json header() const;
    void end(Connection& connection);
    void forEachWatch(const std::function<void(Connection&)>& change);

    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    std::map<std::string, Script> scripts_{};
    std::map<std::string, std::vector<Json>> requests_{};
    Backup state_{};
    std::uint64_t lease_ = 0;
    std::uint64_t forgottenLease_ = 0;
    std::uint64_t compacted_ = 0;
    bool isHeld_ = false;
    bool isSilent_ = false;

    boost::asio::io_context context_{};
    boost::asio::ip::tcp::acceptor acceptor_;
    std::list<Connection> connections_{};
    std::list<std::thread> threads_{};
    std::thread accepting_;
};

}  // namespace orvx::registry
