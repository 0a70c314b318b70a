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

/// The members of a cluster of etcd, and how they are reached.
struct EtcdOptions {
    std::vector<std::string> members{};  ///< "http://host:port" or "https://host:port"; not empty
    /// For https: the client's certificate and key, if any; and the authority of the members'
    /// certificates, empty for the system's authorities.
    TlsFiles tls{};
    /// Limit for one request to one member, including the name lookup, connecting and the
    /// handshake.
    std::chrono::milliseconds tryTimeout{1'000};
    /// Called when no file descriptor is left for a connection or a lookup; may free one. Must not
    /// call the client.
    std::function<void()> onNoDescriptor{};
};

/// Splits a list of members that is separated by commas. Throws a std::invalid_argument that gives
/// the number of the first element that is not a URL of a member. It does not contain the element,
/// which may have a password.
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
    /// The number of calls that run at the same time; further calls wait.
    static constexpr std::size_t kMaxCalls = 32;

    struct Result {
        std::optional<nlohmann::json> answer{};  ///< an object; none: `error` gives the reason
        std::string error{};                     ///< printable; empty with an answer
        /// gRPC's status code of a request that etcd refused, such as 3 for an invalid request. 0
        /// with an answer, or if no member answered.
        int refusal = 0;
        /// With an answer: an earlier attempt may have been carried out. Without an answer: any
        /// attempt may have been carried out.
        bool isUncertain = false;
        /// The id of another cluster than requireCluster() demands, if every member answered as a
        /// member of it; otherwise empty.
        std::string otherCluster{};
    };
    using Handler = std::function<void(Result)>;

    /// Connects on the first request. Throws a FileError for a file of TLS that cannot be used, and
    /// a std::invalid_argument for members that parseMembers() would not return.
    EtcdClient(boost::asio::io_context& context, const EtcdOptions& options);
    /// Calls close().
    ~EtcdClient();
    EtcdClient(const EtcdClient&) = delete;
    EtcdClient& operator=(const EtcdClient&) = delete;

    /// Accepts answers, and results of a watch, only from that cluster from now on. An answer of a
    /// member of another cluster counts as no answer, even if the member has carried the request
    /// out. `id`: etcd's `cluster_id`; empty: any cluster. `onOther`: called with the URL of a
    /// member of another cluster each time the member answers; must not call the client.
    void requireCluster(std::string id, std::function<void(const std::string&)> onOther);

    /// Sends `body` to /v3/`call`, such as "kv/txn". It is sent to the member that answered last,
    /// or to the member that follows one that refused a call since, then once to each other member,
    /// until one answers or refuses. `handler` is called once, within tryTimeout for each member,
    /// or twice that time if the call had to wait for others. Throws a json::type_error for a body
    /// with a text that is not UTF-8.
    void call(std::string_view call, const nlohmann::json& body, Handler handler);

    /// Starts a watch. Ends a running watch without its onEnd. Each watch is sent to the member
    /// that follows the member of the previous watch. tryTimeout limits the time until etcd begins
    /// to answer; there is no limit for silence after that.
    ///
    /// `createRequest`: the fields of etcd's WatchCreateRequest, such as key and range_end.
    /// `onResult`: called with each `result`, which is an object. The first says `created`. After
    /// one that says `canceled` no other result follows, but the stream does not end.
    /// `onEnd`: called once with the reason, when the watch cannot be started or its stream ends.
    void watch(const nlohmann::json& createRequest, std::function<void(nlohmann::json)> onResult,
               std::function<void(std::string)> onEnd);

    /// Ends the watch without its onEnd. Does nothing if there is none.
    void stopWatch();

    /// Ends all calls and the watch without calling their handlers, which are destroyed. Later
    /// calls do nothing.
    void close();

  private:
    class Impl;
    std::shared_ptr<Impl> impl_;
};

}  // namespace orvx::registry
