// Decides which member gets a request, after which failures the next member is tried, and which of
// etcd's errors are final.
// Entered only by the thread that runs the io_context.
// There is no lock. A function calls a handler as its last action, because the handler may destroy
// the client.

#include "EtcdClient.h"

#include <algorithm>
#include <boost/asio/post.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/beast/core/error.hpp>
#include <boost/beast/http/status.hpp>
#include <cstdint>
#include <deque>
#include <stdexcept>
#include <unordered_set>
#include <utility>

#include "EtcdConnection.h"
#include "EtcdEntries.h"
#include "Json.h"
#include "Tls.h"
#include "Url.h"

namespace orvx::registry {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using nlohmann::json;
using Clock = std::chrono::steady_clock;

namespace {

constexpr std::size_t kMaxReason = 200;

/// Makes the text one line of printable ASCII, cut for a log.
std::string printable(std::string text) {
    text.resize(std::min(text.size(), kMaxReason));
    std::replace_if(
        text.begin(), text.end(), [](char c) { return c < ' ' || c > '~'; }, '?');
    return text;
}

/// An error of etcd's gateway: an object `error` in a stream, otherwise the fields of the answer
/// itself.
struct EtcdError {
    EtcdError(http::status status, const json& answer) {
        if (answer.is_object()) {
            const auto inner = answer.find("error");
            const json& error = inner != answer.end() && inner->is_object() ? *inner : answer;
            const auto text = error.find("message");
            const auto number = error.find("code");
            if (text != error.end() && text->is_string()) {
                message = *text;
            }
            if (number != error.end() && number->is_number_unsigned()) {
                code = *number;
            }
        }
        reason = printable("HTTP " + std::to_string(static_cast<unsigned>(status)) + ": " +
                           (message.empty() ? "no answer of etcd" : message));
    }

    /// Whether every other member would refuse the request, too, since it is invalid or not
    /// permitted.
    bool isFinal() const {
        constexpr std::uint64_t kFinal[] = {3, 5, 6, 7, 9, 11, 12, 16};
        return std::find(std::begin(kFinal), std::end(kFinal), code) != std::end(kFinal);
    }

    /// Whether etcd has refused the request without carrying out any of it.
    bool hadNoEffect() const {
        return message == "etcdserver: no leader" || message == "etcdserver: too many requests" ||
               message == "raft proposal dropped";
    }

    std::string message{};
    std::string reason{};
    std::uint64_t code = 0;  // gRPC's status code
};

}  // namespace

std::vector<std::string> parseMembers(std::string_view list) {
    std::vector<std::string> members;
    for (std::size_t begin = 0; begin <= list.size();) {
        const std::size_t end = std::min(list.find(',', begin), list.size());
        members.emplace_back(list.substr(begin, end - begin));
        if (!parseUrl(members.back())) {
            throw std::invalid_argument("member " + std::to_string(members.size()) +
                                        " of etcd must be a URL such as http://127.0.0.1:2379, "
                                        "without a user and a path");
        }
        begin = end + 1;
    }
    return members;
}

class EtcdClient::Impl : public std::enable_shared_from_this<Impl> {
  public:
    Impl(asio::io_context& context, const EtcdOptions& options);

    void requireCluster(std::string id, std::function<void(const std::string&)> onOther) {
        cluster_ = std::move(id);
        onOther_ = std::move(onOther);
    }
    void call(std::string target, std::string body, Handler handler);
    void watch(std::string body, std::function<void(json)> onResult,
               std::function<void(std::string)> onEnd);
    void stopWatch();
    void close();

  private:
    using Error = EtcdConnection::Error;

    struct Member {
        std::string name;
        Url url;
        std::vector<std::shared_ptr<EtcdConnection>> idle{};
    };
    struct Call {
        std::string target;
        std::string body;
        Handler handler;
        Clock::time_point latestStart;
        std::size_t member = 0;
        std::size_t tries = 0;
        Clock::time_point deadline{};  // of the present attempt
        std::shared_ptr<EtcdConnection> connection{};
        bool isReused = false;                // whether the connection was used before
        std::size_t otherClusterAnswers = 0;  // answers of members of result.otherCluster
        Result result{};
    };
    struct Watch {
        std::string name;  // of the member
        std::shared_ptr<EtcdConnection> connection;
        std::function<void(json)> onResult;
        std::function<void(std::string)> onEnd;
        std::string text{};  // the begin of a line that is not complete
    };
    using CallPointer = std::shared_ptr<Call>;
    using WatchPointer = std::shared_ptr<Watch>;

    std::string rejectionOf(const std::string& cluster, const std::string& member) const;
    void startCalls();
    void beginTry(const CallPointer& call);
    void send(const CallPointer& call);
    void onHeader(const CallPointer& call, Error error);
    void onBody(const CallPointer& call, Error error);
    void onFailure(const CallPointer& call, Error error);
    void onAnswer(const CallPointer& call, http::status status, json answer);
    void tryNext(const CallPointer& call, const std::string& reason);
    void finish(const CallPointer& call);

    void onWatchHeader(const WatchPointer& watch, Error error);
    void awaitPiece(const WatchPointer& watch);
    void onPiece(const WatchPointer& watch, Error error);
    void takeLine(const WatchPointer& watch, http::status status, std::string_view line);
    void endWatch(const WatchPointer& watch, const std::string& reason);

    std::shared_ptr<EtcdConnection> makeConnection(const Member& member) {
        return std::make_shared<EtcdConnection>(context_, member.url,
                                                member.url.isTls ? tls_.get() : nullptr, kMaxAnswer,
                                                onNoDescriptor_);
    }

    asio::io_context& context_;
    const std::chrono::milliseconds tryTimeout_;
    const std::function<void()> onNoDescriptor_;
    std::vector<Member> members_{};
    std::string cluster_{};  // the required cluster; empty: any
    std::function<void(const std::string&)> onOther_{};
    std::unique_ptr<asio::ssl::context> tls_{};
    std::size_t preferred_ = 0;  // the member that answered last, or follows one that refused since
    std::deque<CallPointer> waiting_{};
    std::unordered_set<CallPointer> running_{};
    std::size_t nextToWatch_ = 0;
    WatchPointer watch_{};
    bool isClosed_ = false;
};

EtcdClient::Impl::Impl(asio::io_context& context, const EtcdOptions& options)
    : context_(context), tryTimeout_(options.tryTimeout), onNoDescriptor_(options.onNoDescriptor) {
    std::string list;
    for (const std::string& member : options.members) {
        list += (list.empty() ? "" : ",") + member;
    }
    for (const std::string& name : parseMembers(list)) {
        members_.push_back({name, *parseUrl(name)});
        if (members_.back().url.isTls && !tls_) {
            tls_ = makeClientTlsContext(options.tls);
        }
    }
}

void EtcdClient::Impl::call(std::string target, std::string body, Handler handler) {
    if (isClosed_) {
        return;
    }
    waiting_.push_back(std::make_shared<Call>(
        Call{std::move(target), std::move(body), std::move(handler),
             Clock::now() + tryTimeout_ * static_cast<int>(members_.size())}));
    asio::post(context_, [self = shared_from_this()] { self->startCalls(); });
}

/// The reason to ignore an answer of a member of `cluster`; empty if it is accepted.
std::string EtcdClient::Impl::rejectionOf(const std::string& cluster,
                                          const std::string& member) const {
    if (cluster_.empty() || cluster == cluster_) {
        return {};
    }
    if (cluster.empty()) {
        return "no answer of etcd";
    }
    onOther_(member);
    return "a member of another cluster";
}

void EtcdClient::Impl::startCalls() {
    while (!waiting_.empty() && running_.size() < kMaxCalls) {
        const CallPointer call = std::move(waiting_.front());
        waiting_.pop_front();
        running_.insert(call);
        if (Clock::now() > call->latestStart) {
            call->result.error = "too many calls: none ended in time for this one";
            finish(call);
        } else {
            call->member = preferred_;
            beginTry(call);
        }
    }
}

void EtcdClient::Impl::beginTry(const CallPointer& call) {
    call->deadline = Clock::now() + tryTimeout_;
    send(call);
}

void EtcdClient::Impl::send(const CallPointer& call) {
    Member& member = members_[call->member];
    call->isReused = false;
    while (!call->isReused && !member.idle.empty()) {
        call->connection = std::move(member.idle.back());
        member.idle.pop_back();
        call->isReused = call->connection->isReusable();
    }
    if (!call->isReused) {
        call->connection = makeConnection(member);
    }
    call->connection->post(
        call->target, call->body, call->deadline,
        [self = shared_from_this(), call](Error error) { self->onHeader(call, error); });
}

void EtcdClient::Impl::onHeader(const CallPointer& call, Error error) {
    if (error) {
        return onFailure(call, error);
    }
    call->connection->readRest(
        [self = shared_from_this(), call](Error failure) { self->onBody(call, failure); });
}

void EtcdClient::Impl::onBody(const CallPointer& call, Error error) {
    if (error) {
        return onFailure(call, error);
    }
    const auto connection = std::move(call->connection);
    const http::status status = connection->status();
    json answer = parseJson(connection->takeBody());
    if (connection->isReusable()) {
        members_[call->member].idle.push_back(connection);
    }
    onAnswer(call, status, std::move(answer));
}

void EtcdClient::Impl::onFailure(const CallPointer& call, Error error) {
    // The idle connections to the member have probably failed as well.
    members_[call->member].idle.clear();
    call->result.isUncertain |= call->connection->isSent();
    if (call->isReused && !call->connection->isAnswered() && error != beast::error::timeout) {
        return send(call);  // the idle connection was closed, so the member itself may work
    }
    tryNext(call, error.message());
}

void EtcdClient::Impl::onAnswer(const CallPointer& call, http::status status, json answer) {
    if (status == http::status::ok && answer.is_object() && !answer.contains("error")) {
        const std::string cluster = EtcdEntries::clusterOf(answer);
        const std::string rejection = rejectionOf(cluster, members_[call->member].name);
        if (!rejection.empty()) {
            call->otherClusterAnswers =
                cluster == call->result.otherCluster ? call->otherClusterAnswers + 1 : 1;
            call->result.otherCluster = cluster;
            return tryNext(call, rejection);
        }
        preferred_ = call->member;
        call->result.answer = std::move(answer);
        call->result.error.clear();
        return finish(call);
    }
    const EtcdError error(status, answer);
    if (error.isFinal()) {
        // An error does not contain the cluster, so the member may belong to another one.
        preferred_ = (call->member + 1) % members_.size();
        call->result.refusal = static_cast<int>(error.code);
        call->result.error = error.reason;
        return finish(call);
    }
    call->result.isUncertain |= !error.hadNoEffect();
    tryNext(call, error.reason);
}

void EtcdClient::Impl::tryNext(const CallPointer& call, const std::string& reason) {
    std::string& reasons = call->result.error;
    reasons += (reasons.empty() ? "" : "; ") + members_[call->member].name + ": " + reason;
    call->member = (call->member + 1) % members_.size();
    if (++call->tries == members_.size()) {
        return finish(call);
    }
    beginTry(call);
}

void EtcdClient::Impl::finish(const CallPointer& call) {
    call->connection.reset();
    running_.erase(call);
    if (call->otherClusterAnswers != members_.size()) {
        call->result.otherCluster.clear();
    }
    if (!waiting_.empty()) {
        asio::post(context_, [self = shared_from_this()] { self->startCalls(); });
    }
    call->handler(std::move(call->result));
}

void EtcdClient::Impl::watch(std::string body, std::function<void(json)> onResult,
                             std::function<void(std::string)> onEnd) {
    if (isClosed_) {
        return;
    }
    stopWatch();
    const Member& member = members_[nextToWatch_];
    nextToWatch_ = (nextToWatch_ + 1) % members_.size();
    watch_ = std::make_shared<Watch>(
        Watch{member.name, makeConnection(member), std::move(onResult), std::move(onEnd)});
    watch_->connection->post("/v3/watch", std::move(body), Clock::now() + tryTimeout_,
                             [self = shared_from_this(), watch = watch_](Error error) {
                                 self->onWatchHeader(watch, error);
                             });
}

void EtcdClient::Impl::stopWatch() {
    if (watch_) {
        watch_->connection->close();
        watch_.reset();
    }
}

void EtcdClient::Impl::onWatchHeader(const WatchPointer& watch, Error error) {
    if (error) {
        return endWatch(watch, error.message());
    }
    const http::status status = watch->connection->status();
    if (status == http::status::ok) {
        return awaitPiece(watch);
    }
    watch->connection->readRest([self = shared_from_this(), watch, status](Error failure) {
        self->endWatch(
            watch, failure ? failure.message()
                           : EtcdError(status, parseJson(watch->connection->takeBody())).reason);
    });
}

void EtcdClient::Impl::awaitPiece(const WatchPointer& watch) {
    watch->connection->readPiece(
        [self = shared_from_this(), watch](Error error) { self->onPiece(watch, error); });
}

void EtcdClient::Impl::onPiece(const WatchPointer& watch, Error error) {
    std::string& text = watch->text;
    std::size_t searched = text.size();
    text += watch->connection->takeBody();
    std::size_t begin = 0;
    for (std::size_t end = 0;
         watch_ == watch && (end = text.find('\n', searched)) != std::string::npos;
         begin = searched = end + 1) {
        takeLine(watch, watch->connection->status(),
                 std::string_view(text).substr(begin, end - begin));
    }
    if (watch_ != watch) {
        return;
    }
    text.erase(0, begin);
    if (text.size() > kMaxAnswer) {
        endWatch(watch, "a line is too long");
    } else if (error) {
        endWatch(watch, error.message());
    } else if (watch->connection->isEnded()) {
        endWatch(watch, "the stream ended");
    } else {
        awaitPiece(watch);
    }
}

void EtcdClient::Impl::takeLine(const WatchPointer& watch, http::status status,
                                std::string_view line) {
    json value = parseJson(line);
    const auto result = value.is_object() ? value.find("result") : value.end();
    if (result == value.end() || !result->is_object()) {
        return endWatch(watch, EtcdError(status, value).reason);
    }
    const std::string rejection = rejectionOf(EtcdEntries::clusterOf(*result), watch->name);
    if (!rejection.empty()) {
        return endWatch(watch, rejection);
    }
    watch->onResult(std::move(*result));
}

void EtcdClient::Impl::endWatch(const WatchPointer& watch, const std::string& reason) {
    stopWatch();
    watch->onEnd(watch->name + ": " + reason);
}

void EtcdClient::Impl::close() {
    isClosed_ = true;
    stopWatch();
    const auto waiting = std::exchange(waiting_, {});
    for (const CallPointer& call : std::exchange(running_, {})) {
        call->connection->close();
    }
    for (Member& member : members_) {
        member.idle.clear();
    }
}

EtcdClient::EtcdClient(asio::io_context& context, const EtcdOptions& options)
    : impl_(std::make_shared<Impl>(context, options)) {}

EtcdClient::~EtcdClient() {
    close();
}

void EtcdClient::requireCluster(std::string id, std::function<void(const std::string&)> onOther) {
    impl_->requireCluster(std::move(id), std::move(onOther));
}

void EtcdClient::call(std::string_view call, const json& body, Handler handler) {
    impl_->call("/v3/" + std::string(call), body.dump(), std::move(handler));
}

void EtcdClient::watch(const json& createRequest, std::function<void(json)> onResult,
                       std::function<void(std::string)> onEnd) {
    impl_->watch(json{{"create_request", createRequest}}.dump(), std::move(onResult),
                 std::move(onEnd));
}

void EtcdClient::stopWatch() {
    impl_->stopWatch();
}

void EtcdClient::close() {
    impl_->close();
}

}  // namespace orvx::registry
