// The four paths of an answer through the client: a registration, its retry, a check with the
// registration after a loss, and a withdrawal.
//
// Threads: the test's; scripts are carried out by the server's.

#include "RequestKind.h"

#include <utility>

namespace orvx::serviceregistryclient {
namespace {

void replace(std::string& text, const std::string& what, const std::string& with) {
    for (auto at = text.find(what); at != std::string::npos; at = text.find(what, at)) {
        text.replace(at, what.size(), with);
        at += with.size();
    }
}

}  // namespace

std::string nameOf(Kind kind) {
    switch (kind) {
        case Kind::Put:
            return "Put";
        case Kind::PutWithARetry:
            return "PutWithARetry";
        case Kind::PutAfterALoss:
            return "PutAfterALoss";
        case Kind::Head:
            return "Head";
        case Kind::Delete:
            return "Delete";
    }
    return {};
}

Decisive::Decisive(Kind kind)
    : status(kind == Kind::Head     ? "404 Not Found"
             : kind == Kind::Delete ? "200 OK"
                                    : "201 Created"),
      fields(kind == Kind::Head || kind == Kind::Delete ? "" : "Location: /again\r\n") {}

std::string withParts(std::string text, const Decisive& parts) {
    replace(text, "$head", parts.head());
    replace(text, "$status", parts.status);
    replace(text, "$code", parts.status.substr(0, 3));
    replace(text, "$fields", parts.fields);
    return text;
}

std::string KindTest::last(int status, const testing::Headers& headers) {
    testing::Headers all = headers;
    all.emplace_back("Connection", "close");
    return response(status, all);
}

void KindTest::checkAtOnce() {
    context->enableCheck(true);
    context->setCheckInterval(seconds(0));
}

void KindTest::answer(const std::vector<Script>& answers) {
    for (const Script& script : answers) {
        server.nextRequest(script);
    }
}

void KindTest::expectFailure(Kind kind, const Script& answer, const std::string& why) {
    const Script loss = response(404);
    const Script again = created("/again");
    switch (kind) {
        case Kind::Put:
            return put(answer, refused(why));
        case Kind::PutWithARetry:
            putWithARetry(answer, {"PUT /lamp", "PUT /lamp"});
            return expectLogged("response put request was not ok, communication status=" + why);
        case Kind::PutAfterALoss:
            return lose({last(404), answer, again},
                        {"PUT /lamp", "HEAD /lamp", "PUT /lamp", "PUT /lamp", "HEAD /again"});
        case Kind::Head:
            return lose({answer, loss, again},
                        {"PUT /lamp", "HEAD /lamp", "HEAD /lamp", "PUT /lamp", "HEAD /again"});
        case Kind::Delete:
            return remove(answer, refused(why));
    }
}

void KindTest::expectSuccess(Kind kind, const Script& answer) {
    const Recorder::Lines requests{"PUT /lamp", "HEAD /lamp", "PUT /lamp", "HEAD /again"};
    switch (kind) {
        case Kind::Put:
            return put(answer, kRegistered);
        case Kind::PutWithARetry:
            return putWithARetry(answer, {"PUT /lamp"});
        case Kind::PutAfterALoss:
            return lose({last(404), answer}, requests);
        case Kind::Head:
            return lose({answer, created("/again")}, requests);
        case Kind::Delete:
            return remove(answer, kWithdrawn);
    }
}

void KindTest::put(const Script& answer, const std::string& outcome) {
    start();
    EXPECT_EQ(outcomeOf(answer), outcome);
    expectItWorks();
    EXPECT_EQ(server.counters().requests, 2U);
}

void KindTest::putWithARetry(const Script& answer, const Recorder::Lines& requests) {
    context->enableRetry(true);
    context->setInitialMaxRetryCount(1);
    context->setRetryInterval(milliseconds(1));
    start();
    server.nextRequest(answer);
    registered("lamp");
    EXPECT_EQ(requestLines(), requests);
    expectItWorks();
}

void KindTest::remove(const Script& answer, const std::string& outcome) {
    server.nextRequest(last(201, {{"Location", "/lamp"}}));
    start();
    const Handle handle = registered("lamp");
    server.nextRequest(answer);
    EXPECT_EQ(outcomeOfWithdrawal(handle), outcome);
    EXPECT_EQ(requestLines(), (Recorder::Lines{"PUT /lamp", "DELETE /lamp"}));
    EXPECT_EQ(outcomeOfWithdrawal(handle), outcome == kWithdrawn ? "OK/NONE" : kWithdrawn);
    expectNotifications({"lamp is there", "lamp is gone"});
    expectItWorks();
}

void KindTest::lose(const std::vector<Script>& answers, const Recorder::Lines& requests) {
    checkAtOnce();
    server.nextRequest(last(201, {{"Location", "/lamp"}}));
    answer(answers);
    server.nextRequest(Script().silence());
    start();
    registered("lamp");
    EXPECT_TRUE(server.waitForRequests(requests.size()));
    EXPECT_EQ(requestLines(), requests);
    expectNotifications({"lamp is there", "lamp is gone", "lamp is there"});
}

}  // namespace orvx::serviceregistryclient
