// The fixture of the tests over real sockets.
//
// Threads: the test's. Its callbacks run on the client's callback thread and use only a recorder.

#include "ProtocolTest.h"

#include "StopBound.h"

#include <algorithm>
#include <utility>

namespace orvx::serviceregistryclient {

using communication::CommunicationStatus;
using communication::HttpResponse;

namespace {

using Clock = std::chrono::steady_clock;

void expectQuick(milliseconds bound, const std::function<void()>& stop) {
    const auto begin = Clock::now();
    stop();
    EXPECT_LT(Clock::now() - begin, bound) << "stopping took too long";
}

std::string afterLastSlash(const std::string& target) {
    return target.substr(target.rfind('/') + 1);
}

}  // namespace

std::string describe(const OrvRegistrationResponse& outcome) {
    std::string text = std::string(OrvRegistrationResponse::statusString(outcome.status)) + '/' +
                       OrvRegistrationResponse::errorCodeString(outcome.errorCode);
    if (!outcome.httpResponse) {
        return text;
    }
    const HttpResponse& answer = *outcome.httpResponse;
    if (answer.getCommunicationStatus() != CommunicationStatus::Ok) {
        text += ' ';
        text += communicationStatusToString(answer.getCommunicationStatus());
    }
    const auto code = static_cast<int>(answer.getStatusCode());
    const bool hasCode = code != 0 || answer.getCommunicationStatus() == CommunicationStatus::Ok;
    return hasCode ? text + ' ' + std::to_string(code) : text;
}

std::string refused(const std::string& why) {
    return "ERROR/SERVICE_REGISTRY_ERROR " + why;
}

std::string created(const std::string& location) {
    return response(201, {{"Location", location}});
}

Script obey(const Request& request) {
    return request.method == "PUT" ? created("/uuid-" + afterLastSlash(request.target))
                                   : response(200);
}

ProtocolTest::ProtocolTest() {
    context->setLoggerFactory(log);
    context->enableRetry(false);
    context->enableCheck(false);
    // Without an interval the time-out of one check would end a later check.
    context->setHeadTimeout(std::chrono::minutes(10));
    server.onRequest(obey);
}

void ProtocolTest::TearDown() {
    if (context) {
        stop();
    }
    EXPECT_THAT(outcomes->rest(), ::testing::IsEmpty()) << "outcomes that the test did not take";
    EXPECT_TRUE(server.waitFor([](const auto& now) { return now.open == 0; }))
        << "connections that are left";
}

void ProtocolTest::start() {
    context->setHttpConfig(http);
    context->init();
    client().addServiceRegisterStatusListener(
        [notifications = notifications](const std::shared_ptr<const common::ServiceModel>& model,
                                        bool isRegistered) {
            notifications->add(model->getName() + (isRegistered ? " is there" : " is gone"));
        });
}

OrvServiceRegistryClient& ProtocolTest::client() {
    return dynamic_cast<OrvServiceRegistryClient&>(*context->getServiceRegistryClient());
}

void ProtocolTest::stop() {
    expectQuick(testing::kStopBound, [this] { context->deinit(); });
}

void ProtocolTest::restart() {
    expectQuick(testing::kStopBound, [this] { client().deinit(); });
    client().init();
}

ProtocolTest::Service ProtocolTest::service(const std::string& name, const std::string& uri) {
    return std::make_shared<common::ServiceCreate>(
        std::make_unique<common::XObject>("", name, uri));
}

IOrvServiceRegistryClient::ResponseCallback ProtocolTest::record(const std::string& label) {
    return [outcomes = outcomes, label](const OrvRegistrationResponse& outcome) {
        outcomes->add(label.empty() ? describe(outcome) : label + ": " + describe(outcome));
    };
}

std::string ProtocolTest::outcomeAt(const common::ServiceInfo& where) {
    client().registerServiceAtRegistry(where, service("service-" + std::to_string(++services_)),
                                       record());
    return outcomes->next();
}

std::string ProtocolTest::outcomeOf(Script answer) {
    server.nextRequest(std::move(answer));
    return outcome();
}

ProtocolTest::Handle ProtocolTest::registered(const std::string& name) {
    Handle handle = registerService(name);
    EXPECT_EQ(outcomes->next(), kRegistered);
    return handle;
}

std::string ProtocolTest::outcomeOfWithdrawal(const Handle& handle) {
    handle(record());
    return outcomes->next();
}

void ProtocolTest::expectNotifications(const Recorder::Lines& expected) {
    EXPECT_EQ(notifications->take(expected.size()), expected);
    EXPECT_THAT(notifications->rest(), ::testing::IsEmpty());
}

std::vector<std::string> ProtocolTest::requestLines() const {
    std::vector<std::string> lines;
    for (const Request& request : server.requests()) {
        lines.push_back(request.method + ' ' + request.target);
    }
    return lines;
}

void ProtocolTest::expectRequest(const std::string& line) const {
    EXPECT_TRUE(eventually([&] {
        const auto lines = requestLines();
        return std::find(lines.begin(), lines.end(), line) != lines.end();
    })) << "no such request: "
        << line;
}

const std::vector<testing::LogLine>& ProtocolTest::logged() {
    for (testing::LogLine& line : log->takeLines()) {
        logged_.push_back(std::move(line));
    }
    return logged_;
}

void ProtocolTest::expectLogged(const std::string& text) {
    EXPECT_TRUE(eventually([&] {
        const auto& lines = logged();
        return std::any_of(lines.begin(), lines.end(), [&text](const testing::LogLine& line) {
            return line.text.find(text) != std::string::npos;
        });
    })) << "no such line: "
        << text << "\nbut: " << ::testing::PrintToString(logged());
}

}  // namespace orvx::serviceregistryclient
