#pragma once

#include <boost/asio/io_context.hpp>
#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "TlsFiles.h"

namespace orvx::registry {

/// How a cluster of etcd is reached.
struct EtcdOptions {
    std::vector<std::string> members{};  ///< "http://host:port" or "https://host:port"; not empty
    /// For https: the certificate and key that are shown, if any; the authority that signed the
    /// members' certificates, empty: the system's authorities.
    TlsFiles tls{};
    /// For one request at one member, with the lookup of its name, connecting and the handshake.
    std::chrono::milliseconds tryTimeout{1'000};
};

/// The members in a list that is separated by commas. Throws a std::invalid_argument that tells
/// which element is no URL of a member, without its text, which may have a password.
std::vector<std::string> parseMembers(std::string_view list);

/// An asynchronous client of etcd's JSON gateway. Requests run in parallel over connections that
/// are kept. Every request demands that the member has a leader.
///
/// Thread-safety: the thread that runs the io_context only. All handlers are called on that thread,
/// never from inside a member function. A handler may call every member function and destroy the
/// client.
class EtcdClient {
  public:
    /// Largest answer, and largest line of a watch, in bytes.
    static constexpr std::size_t kMaxAnswer = 64UL * 1'024 * 1'024;
    /// Further calls wait for one of these to end.
    static constexpr std::size_t kMaxCalls = 32;

    struct Result {
        std::optional<nlohmann::json> answer{};  ///< an object; empty: `error` says why
        std::string error{};                     ///< printable; empty with an answer
        /// gRPC's code of a request that etcd refused, such as 3 for an invalid one; 0 with an
        /// answer, or when no member answered.
        int refusal = 0;
        /// An earlier attempt, or without an answer any attempt, may have been carried out.
        bool isUncertain = false;
        /// If every member answered, and all are of the same other cluster than requireCluster()
        /// demands: the id of that cluster.
        std::string otherCluster{};
    };
    using Handler = std::function<void(Result)>;

    /// Connects on the first request. Throws a FileError for a file of TLS that cannot be used, and
    /// a std::invalid_argument for members that parseMembers() would not return.
    EtcdClient(boost::asio::io_context& context, const EtcdOptions& options);
    /// close()
    ~EtcdClient();
    EtcdClient(const EtcdClient&) = delete;
    EtcdClient& operator=(const EtcdClient&) = delete;

    /// Takes answers, and results of a watch, of that cluster only from now on. A member that gives
    /// others counts as one that does not answer, whatever it has done. `id`: etcd's `cluster_id`;
    /// empty: each cluster. `onOther`: called with the URL of a member of another cluster each time
    /// that it answers; calls no function of the client.
    void requireCluster(std::string id, std::function<void(const std::string&)> onOther);

    /// Sends `body` to /v3/`call`, such as "kv/txn": to the member that answered last, then to each
    /// other one once, until one answers or refuses. `handler` is called once: at the latest after
    /// tryTimeout for each member, or twice as long when the call had to wait for others. Throws a
    /// json::type_error for a body with a text that is not UTF-8.
    void call(std::string_view call, const nlohmann::json& body, Handler handler);

    /// Starts a watch, and ends the watch before it, if any, without its onEnd. Each watch asks the
    /// member after the one that the watch before it asked. tryTimeout limits the time until etcd
    /// begins to answer; later silence has no limit.
    ///
    /// `createRequest`: the fields of etcd's WatchCreateRequest, such as key and range_end.
    /// `onResult`: called with each `result`, which is an object. The first says `created`. After
    /// one that says `canceled` none follows, but the stream does not end.
    /// `onEnd`: called once, when the watch cannot be started or its stream ends, and says why.
    void watch(const nlohmann::json& createRequest, std::function<void(nlohmann::json)> onResult,
               std::function<void(std::string)> onEnd);

    /// Ends the watch without its onEnd. Does nothing when there is none.
    void stopWatch();

    /// Ends all calls and the watch without calling their handlers, which are destroyed. Later
    /// calls do nothing.
    void close();

  private:
    class Impl;
    std::shared_ptr<Impl> impl_;
};

}  // namespace orvx::registry
