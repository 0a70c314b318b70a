#pragma once

#include <algorithm>
#include <boost/beast/http/field.hpp>
#include <boost/beast/http/status.hpp>
#include <chrono>
#include <functional>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "RunningRegistry.h"

namespace orvx::registry {

/// Waits until the condition is true. Throws a std::runtime_error after 20 seconds.
inline void await(const std::function<bool()>& isTrue) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!isTrue()) {
        if (std::chrono::steady_clock::now() > end) {
            throw std::runtime_error("it did not come true within 20 seconds");
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
}

/// A registry in front of etcd, with functions for common requests.
class Replica {
  public:
    explicit Replica(std::vector<std::string> etcd, std::chrono::milliseconds ttl = {})
        : registry_(optionsFor(std::move(etcd), ttl)) {}

    TestConnection::Response ask(const std::string& method, const std::string& target,
                                 const std::string& body = {}) const {
        return registry_.connect().ask(makeRequest(method, target, body));
    }
    unsigned statusOf(const std::string& method, const std::string& target) const {
        RawConnection connection = registry_.connect();
        connection.send(makeRequest(method, target));
        return connection.receive(method == "HEAD").result_int();
    }
    /// Puts an entry and returns its target. After a 503, because etcd did not answer in time, it
    /// puts again.
    std::string put(const std::string& path, const std::string& body = "{}") const {
        TestConnection::Response response;
        await([&] {
            response = ask("PUT", path, body);
            return response.result() != boost::beast::http::status::service_unavailable;
        });
        return std::string(response[boost::beast::http::field::location]);
    }
    std::vector<std::string> paths(const std::string& query = {}) const {
        std::vector<std::string> paths;
        const auto answer = ask("GET", "/" + query);
        if (answer.result() != boost::beast::http::status::ok) {
            return {"status " + std::to_string(answer.result_int())};
        }
        const nlohmann::json list = nlohmann::json::parse(answer.body());
        for (const nlohmann::json& entry : list.at("entries")) {
            paths.push_back(entry.at("path"));
        }
        return paths;
    }
    bool has(const std::string& path) const {
        const auto all = paths();
        return std::find(all.begin(), all.end(), path) != all.end();
    }
    RawConnection connect() const { return registry_.connect(); }
    std::string metrics() const { return ask("GET", "/-/metrics").body(); }
    bool isReady() const { return statusOf("GET", "/-/ready") == 200; }
    Replica& awaitReady() {
        await([this] { return isReady(); });
        return *this;
    }
    RunningRegistry& registry() { return registry_; }

  private:
    static RegistryOptions optionsFor(std::vector<std::string> etcd,
                                      std::chrono::milliseconds ttl) {
        RegistryOptions options;
        options.etcd = std::move(etcd);
        options.ttl = ttl;
        return options;
    }

    RunningRegistry registry_;
};

}  // namespace orvx::registry
