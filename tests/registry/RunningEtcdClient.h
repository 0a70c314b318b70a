#pragma once

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Base64.h"
#include "EtcdClient.h"
#include "RawConnection.h"

namespace orvx::registry {

/// A queue of texts from one thread to another.
class Texts {
  public:
    void add(std::string text) {
        const std::lock_guard lock(mutex_);
        texts_.push_back(std::move(text));
        added_.notify_one();
    }

    std::string next() {
        std::unique_lock lock(mutex_);
        if (!added_.wait_for(lock, std::chrono::seconds(10), [this] { return !texts_.empty(); })) {
            throw std::runtime_error("nothing came for ten seconds");
        }
        std::string text = std::move(texts_.front());
        texts_.pop_front();
        return text;
    }

    bool isEmpty() {
        const std::lock_guard lock(mutex_);
        return texts_.empty();
    }

  private:
    std::mutex mutex_;
    std::condition_variable added_;
    std::deque<std::string> texts_;
};

/// Waits for the result and returns it. Throws a std::runtime_error when it does not come in time.
inline EtcdClient::Result resultOf(std::future<EtcdClient::Result>& result) {
    if (result.wait_for(std::chrono::seconds(15)) != std::future_status::ready) {
        throw std::runtime_error("a call did not end");
    }
    return result.get();
}

/// A client of etcd on a thread of its own, until it is destroyed. Throws a std::runtime_error when
/// a call does not end in time.
class RunningEtcdClient {
  public:
    using Result = EtcdClient::Result;

    explicit RunningEtcdClient(const EtcdOptions& options) : client_(context_, options) {}
    ~RunningEtcdClient() {
        boost::asio::post(context_, [this] {
            client_.close();
            work_.reset();
        });
        thread_.join();
    }
    RunningEtcdClient(const RunningEtcdClient&) = delete;
    RunningEtcdClient& operator=(const RunningEtcdClient&) = delete;

    /// Runs the task on the client's thread, and waits for its end.
    void run(const std::function<void(EtcdClient&)>& task) {
        std::promise<void> done;
        boost::asio::post(context_, [&] {
            task(client_);
            done.set_value();
        });
        done.get_future().wait();
    }

    std::future<Result> call(const std::string& name, const nlohmann::json& body) {
        auto result = std::make_shared<std::promise<Result>>();
        run([&](EtcdClient& client) {
            client.call(name, body, [result](Result r) { result->set_value(std::move(r)); });
        });
        return result->get_future();
    }
    /// Sends a call whose content does not matter.
    std::future<Result> call() { return call("kv/range", {{"key", "YQ=="}}); }

    Result ask(const std::string& name, const nlohmann::json& body) {
        auto result = call(name, body);
        return resultOf(result);
    }
    Result put(const std::string& key, const std::string& value) {
        return ask("kv/put", {{"key", encode64(key)}, {"value", encode64(value)}});
    }
    Result get(const std::string& key) { return ask("kv/range", {{"key", encode64(key)}}); }

    /// Starts a watch. Adds each result to `texts`, and at the end "end: " with the reason.
    void watch(const nlohmann::json& request, Texts& texts) {
        run([&](EtcdClient& client) {
            client.watch(
                request, [&](const nlohmann::json& result) { texts.add(result.dump()); },
                [&](const std::string& error) { texts.add("end: " + error); });
        });
    }

  private:
    boost::asio::io_context context_;
    boost::asio::executor_work_guard<boost::asio::io_context::executor_type> work_{
        context_.get_executor()};
    EtcdClient client_;
    std::thread thread_{[this] { context_.run(); }};
};

inline EtcdOptions optionsOf(std::vector<std::string> members,
                             std::chrono::milliseconds tryTimeout = std::chrono::seconds(10)) {
    EtcdOptions options;
    options.members = std::move(members);
    options.tryTimeout = tryTimeout;
    return options;
}

inline std::string urlOf(std::uint16_t port) {
    return "http://127.0.0.1:" + std::to_string(port);
}

/// A fake member of etcd, whose connections the test accepts.
struct FakeMember {
    RawListener listener{};

    std::string url() const { return urlOf(listener.port()); }
};

inline std::string answerOf(const std::string& body, const std::string& status = "200 OK") {
    return "HTTP/1.1 " + status + "\r\nContent-Length: " + std::to_string(body.size()) +
           "\r\n\r\n" + body;
}

/// Reads a request whose body is a JSON object without nested objects.
inline std::string readRequest(RawConnection& connection) {
    const std::string header = connection.readUntil("\r\n\r\n");
    return header + connection.readUntil("}");
}

/// Accepts the connection of the client's watch and begins the answer.
inline RawConnection acceptWatch(const FakeMember& member) {
    RawConnection connection = member.listener.accept();
    connection.readUntil("}}");
    connection.send("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n");
    return connection;
}

/// A chunk of an answer.
inline std::string chunkOf(const std::string& text) {
    std::ostringstream chunk;
    chunk << std::hex << text.size() << "\r\n" << text << "\r\n";
    return chunk.str();
}

}  // namespace orvx::registry
