// Each connection has a thread of its own, which reads a request and writes its answer, or writes
// the events of a watch. At the end the sockets are shut down, which ends pending calls, and closed
// after all threads have ended.
// One lock guards the state. It is not held while a script runs or a socket is written.

#include "FakeEtcd.h"

#include <sys/socket.h>

#include <boost/asio/buffer.hpp>
#include <boost/asio/ip/address_v4.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http/message.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/http/string_body.hpp>
#include <boost/beast/http/write.hpp>
#include <chrono>
#include <stdexcept>
#include <utility>

#include "Base64.h"
#include "RunningEtcdClient.h"

namespace orvx::registry {

namespace asio = boost::asio;
namespace http = boost::beast::http;
using asio::ip::tcp;
using boost::system::error_code;
using nlohmann::json;

namespace {

constexpr int kNotFound = 5;  // gRPC's NOT_FOUND

std::string textIn(const json& object, const char* name) {
    return object.value(name, std::string());
}

std::string keyIn(const json& request, const char* name = "key") {
    return decode64(textIn(request, name)).value();
}

std::uint64_t numberIn(const json& object, const char* name) {
    return std::stoull(object.value(name, std::string("0")));
}

bool isWithin(const std::string& key, const json& range) {
    return range.contains("range_end") ? key >= keyIn(range) && key < keyIn(range, "range_end")
                                       : key == keyIn(range);
}

bool sendLine(tcp::socket& socket, const json& result) {
    error_code error;
    asio::write(socket, asio::buffer(chunkOf(json{{"result", result}}.dump() + '\n')), error);
    return !error;
}

}  // namespace

FakeEtcd::FakeEtcd()
    : acceptor_(context_, tcp::endpoint(asio::ip::address_v4::loopback(), 0)),
      accepting_([this] { accept(); }) {}

FakeEtcd::~FakeEtcd() {
    ::shutdown(acceptor_.native_handle(), SHUT_RDWR);
    accepting_.join();
    {
        const std::lock_guard lock(mutex_);
        for (Connection& connection : connections_) {
            end(connection);
        }
    }
    for (std::thread& thread : threads_) {
        thread.join();
    }
}

std::string FakeEtcd::url() const {
    return urlOf(acceptor_.local_endpoint().port());
}

// ---- Connections

void FakeEtcd::accept() {
    for (;;) {
        error_code error;
        tcp::socket socket = acceptor_.accept(error);
        if (error) {
            return;
        }
        socket.set_option(tcp::no_delay(true), error);
        const std::lock_guard lock(mutex_);
        Connection& connection = connections_.emplace_back(std::move(socket));
        threads_.emplace_back([this, &connection] { serve(connection); });
    }
}

void FakeEtcd::serve(Connection& connection) {
    boost::beast::flat_buffer buffer;
    error_code error;
    for (;;) {
        http::request<http::string_body> request;
        http::read(connection.socket, buffer, request, error);
        if (error) {
            break;
        }
        const std::string call(request.target().substr(std::string("/v3/").size()));
        const json body = json::parse(request.body());
        const Answer answered = answer(call, body);
        if (answered.status == 0) {
            break;
        }
        if (call == "watch" && answered.status == 200) {
            serveWatch(connection, body.at("create_request"));
            break;
        }
        http::response<http::string_body> response(static_cast<http::status>(answered.status), 11);
        response.body() = answered.body.dump();
        response.prepare_payload();
        http::write(connection.socket, response, error);
    }
    const std::lock_guard lock(mutex_);
    end(connection);
}

void FakeEtcd::serveWatch(Connection& connection, const json& create) {
    error_code ignored;
    asio::write(connection.socket,
                asio::buffer(std::string("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n")),
                ignored);
    std::unique_lock lock(mutex_);
    connection.isWatch = true;
    connection.isSilent = isSilent_;
    json result = header();
    result["created"] = true;
    const std::uint64_t begin = numberIn(create, "start_revision");
    connection.isCanceled = begin <= compacted_;
    std::size_t next = 0;
    for (;;) {
        lock.unlock();
        const bool isSent = sendLine(connection.socket, result);
        lock.lock();
        changed_.wait(lock, [&] {
            return !isSent || connection.isEnded || connection.isCanceled ||
                   (!connection.isSilent && !isHeld_ && next < state_.events.size());
        });
        if (!isSent || connection.isEnded) {
            return;
        }
        result = header();
        if (std::exchange(connection.isCanceled, false)) {
            connection.isSilent = true;
            result["canceled"] = true;
            result["compact_revision"] = std::to_string(compacted_);
            continue;
        }
        result["events"] = json::array();
        for (; next < state_.events.size(); ++next) {
            if (state_.events[next].revision >= begin &&
                isWithin(state_.events[next].key, create)) {
                result["events"].push_back(state_.events[next].event);
            }
        }
    }
}

FakeEtcd::Answer FakeEtcd::answer(const std::string& call, const json& request) {
    Script script;
    {
        const std::lock_guard lock(mutex_);
        requests_[call].push_back(request);
        changed_.notify_all();
        const auto found = scripts_.find(call);
        script = found == scripts_.end() ? nullptr : found->second;
    }
    const auto carry = [&] { return carryOut(call, request); };
    return script ? script(request, carry) : carry();
}

/// To be called with the lock.
void FakeEtcd::end(Connection& connection) {
    connection.isEnded = true;
    ::shutdown(connection.socket.native_handle(), SHUT_RDWR);
    changed_.notify_all();
}

// ---- Keys

FakeEtcd::Answer FakeEtcd::carryOut(const std::string& call, const json& request) {
    const std::lock_guard lock(mutex_);
    if (call == "kv/range") {
        return {range(request)};
    }
    if (call == "kv/put") {
        write(request, state_.revision + 1);
        state_.revision += 1;
        return {header()};
    }
    if (call == "kv/txn") {
        json made = transaction(request);
        if (made.contains("error")) {
            return {std::move(made), 404};
        }
        return {std::move(made)};
    }
    if (call == "lease/grant") {
        json granted = header();
        granted["ID"] = std::to_string(++lease_);
        return {std::move(granted)};
    }
    return {header()};  // the first result of a watch
}

json FakeEtcd::range(const json& request) const {
    json found = header();
    const std::uint64_t limit = numberIn(request, "limit");
    for (const auto& [key, value] : state_.keys) {
        if (!isWithin(key, request)) {
            continue;
        }
        if (limit != 0 && found["kvs"].size() == limit) {
            found["more"] = true;
            break;
        }
        found["kvs"].push_back({{"key", encode64(key)},
                                {"value", encode64(value.value)},
                                {"create_revision", std::to_string(value.created)},
                                {"mod_revision", std::to_string(value.modified)}});
    }
    return found;
}

json FakeEtcd::transaction(const json& request) {
    bool holds = true;
    for (const json& condition : request.at("compare")) {
        const auto found = state_.keys.find(keyIn(condition));
        const std::uint64_t modified = found == state_.keys.end() ? 0 : found->second.modified;
        holds = holds && modified == numberIn(condition, "mod_revision");
    }
    const json& operations = request.at(holds ? "success" : "failure");
    for (const json& operation : operations) {
        const json put = operation.value("request_put", json::object());
        if (put.contains("lease") &&
            (numberIn(put, "lease") <= forgottenLease_ || numberIn(put, "lease") > lease_)) {
            const std::string message = "etcdserver: requested lease not found";
            return {{"error", message}, {"code", kNotFound}, {"message", message}};
        }
    }
    const std::uint64_t next = state_.revision + 1;
    json responses = json::array();
    for (const json& operation : operations) {
        if (operation.contains("request_put")) {
            write(operation.at("request_put"), next);
            state_.revision = next;
        } else if (operation.contains("request_delete_range")) {
            remove(operation.at("request_delete_range"), next);
            state_.revision = next;
        } else {
            responses.push_back({{"response_range", range(operation.at("request_range"))}});
        }
    }
    json made = header();
    if (holds) {
        made["succeeded"] = true;
    }
    made["responses"] = std::move(responses);
    return made;
}

void FakeEtcd::write(const json& request, std::uint64_t revision) {
    const std::string key = keyIn(request);
    const auto found = state_.keys.find(key);
    const std::uint64_t created = found == state_.keys.end() ? revision : found->second.created;
    state_.keys[key] = {keyIn(request, "value"), created, revision};
    state_.events.push_back({revision,
                             key,
                             {{"kv",
                               {{"key", encode64(key)},
                                {"value", textIn(request, "value")},
                                {"create_revision", std::to_string(created)},
                                {"mod_revision", std::to_string(revision)}}}}});
    changed_.notify_all();
}

void FakeEtcd::remove(const json& request, std::uint64_t revision) {
    const std::string key = keyIn(request);
    if (state_.keys.erase(key) != 0) {
        state_.events.push_back(
            {revision,
             key,
             {{"type", "DELETE"},
              {"kv", {{"key", encode64(key)}, {"mod_revision", std::to_string(revision)}}}}});
        changed_.notify_all();
    }
}

json FakeEtcd::header() const {
    return {{"header",
             {{"cluster_id", state_.cluster}, {"revision", std::to_string(state_.revision)}}}};
}

// ---- Functions for tests

void FakeEtcd::setScript(const std::string& call, Script script) {
    const std::lock_guard lock(mutex_);
    scripts_[call] = std::move(script);
}

FakeEtcd::Answer FakeEtcd::unavailable() {
    return {{{"error", "unavailable"}, {"code", 14}, {"message", "unavailable"}}, 503};
}

json FakeEtcd::ask(const std::string& call, const json& request) {
    return carryOut(call, request).body;
}

void FakeEtcd::put(const std::string& key, const std::string& value) {
    ask("kv/put", {{"key", encode64(key)}, {"value", encode64(value)}});
}

std::vector<json> FakeEtcd::requests(const std::string& call) const {
    const std::lock_guard lock(mutex_);
    const auto found = requests_.find(call);
    return found == requests_.end() ? std::vector<json>() : found->second;
}

void FakeEtcd::awaitRequests(const std::string& call, std::size_t count) const {
    std::unique_lock lock(mutex_);
    const auto arrived = [&] {
        const auto found = requests_.find(call);
        return found != requests_.end() && found->second.size() >= count;
    };
    if (!changed_.wait_for(lock, std::chrono::seconds(20), arrived)) {
        throw std::runtime_error("there were no " + std::to_string(count) + " of " + call);
    }
}

void FakeEtcd::holdEvents() {
    const std::lock_guard lock(mutex_);
    isHeld_ = true;
}

void FakeEtcd::releaseEvents() {
    const std::lock_guard lock(mutex_);
    isHeld_ = false;
    changed_.notify_all();
}

void FakeEtcd::silenceWatches() {
    {
        const std::lock_guard lock(mutex_);
        isSilent_ = true;
    }
    forEachWatch([](Connection& watch) { watch.isSilent = true; });
}

void FakeEtcd::endSilence() {
    const std::lock_guard lock(mutex_);
    isSilent_ = false;
}

void FakeEtcd::cancelWatches() {
    forEachWatch([this](Connection& watch) {
        watch.isCanceled = true;
        compacted_ = state_.revision;
    });
}

void FakeEtcd::endWatches() {
    forEachWatch([this](Connection& watch) { end(watch); });
}

void FakeEtcd::forgetLeases() {
    const std::lock_guard lock(mutex_);
    forgottenLease_ = lease_;
}

FakeEtcd::Backup FakeEtcd::backup() const {
    const std::lock_guard lock(mutex_);
    return state_;
}

void FakeEtcd::restore(const Backup& backup) {
    const std::lock_guard lock(mutex_);
    for (Connection& connection : connections_) {
        end(connection);
    }
    state_ = backup;
    compacted_ = 0;
}

void FakeEtcd::forEachWatch(const std::function<void(Connection&)>& change) {
    const std::lock_guard lock(mutex_);
    for (Connection& connection : connections_) {
        if (connection.isWatch && !connection.isEnded) {
            change(connection);
        }
    }
    changed_.notify_all();
}

}  // namespace orvx::registry
