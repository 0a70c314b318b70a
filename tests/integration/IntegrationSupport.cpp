// Helpers that ask a registry and wait for outcomes. passOn() is entered by the thread of the
// server in front, everything else by the test's; nothing is shared, and there is no lock.
#include "IntegrationSupport.h"

#include <orvx/common/XObject.h>

#include <nlohmann/json.hpp>

#include <chrono>
#include <future>
#include <stdexcept>
#include <thread>

namespace orvx::serviceregistryclient {

using namespace std::chrono_literals;
using registry::makeRequest;
using registry::RawConnection;

std::string text(const OrvRegistrationResponse& outcome) {
    return std::string(OrvRegistrationResponse::statusString(outcome.status)) + "/" +
           OrvRegistrationResponse::errorCodeString(outcome.errorCode);
}

std::string outcomeOf(
    const std::function<void(IOrvServiceRegistryClient::ResponseCallback)>& operation) {
    const auto promise = std::make_shared<std::promise<std::string>>();
    auto future = promise->get_future();
    operation(
        [promise](const OrvRegistrationResponse& outcome) { promise->set_value(text(outcome)); });
    if (future.wait_for(30s) != std::future_status::ready) {
        throw std::runtime_error("no outcome for thirty seconds");
    }
    return future.get();
}

std::shared_ptr<common::ServiceCreate> service(const std::string& name) {
    return std::make_shared<common::ServiceCreate>(std::make_unique<common::XObject>("", name, ""));
}

IOrvServiceRegistryClient::ServiceSet services(const std::string& name, int count) {
    IOrvServiceRegistryClient::ServiceSet set;
    for (int i = 0; i < count; ++i) {
        set.insert(service(name + std::to_string(i)));
    }
    return set;
}

nlohmann::json entriesAt(std::uint16_t port) {
    const auto answer = RawConnection(port).ask(makeRequest("GET", "/"));
    return nlohmann::json::parse(answer.body()).at("entries");
}

std::string passOn(const testing::Request& request, std::uint16_t port) {
    const auto answer = RawConnection(port).ask(request.raw);
    testing::Headers headers;
    for (const auto& field : answer) {
        if (field.name() != boost::beast::http::field::content_length) {
            headers.emplace_back(field.name_string(), field.value());
        }
    }
    return testing::response(static_cast<int>(answer.result_int()), headers, answer.body());
}

}  // namespace orvx::serviceregistryclient
