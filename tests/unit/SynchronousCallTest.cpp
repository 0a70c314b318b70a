// Turns an asynchronous call into a blocking one: the promise, the wait and its time-out. Callers
// that have to wait run on real threads.
#include "BlockingCall.h"
#include "ClientTestAccess.h"

#include <gtest/gtest.h>

#include <chrono>

namespace orvx::serviceregistryclient {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using Response = OrvRegistrationResponse;
using Promise = std::shared_ptr<std::promise<Response>>;

constexpr milliseconds kUnlimited(0);

/// A synchronous call on its own thread.
class Caller {
  public:
    explicit Caller(milliseconds timeout)
        : call_([this, timeout] {
              return ClientTestAccess::synchronized(
                  [this](Promise promise) { started_.set_value(std::move(promise)); }, timeout);
          }) {}

    bool isWaiting() { return call_.isWaiting(); }
    void answer(const Response& response) { started_.get_future().get()->set_value(response); }
    Response get() { return call_.get(); }

  private:
    std::promise<Promise> started_;
    testing::BlockingCall<Response> call_;
};

Response someResponse() {
    Response response(Response::ERROR, Response::SERVICE_REGISTRY_ERROR);
    response.httpResponse = std::make_shared<communication::HttpResponse>(
        communication::HttpResponse::StatusCode::Conflict, "", "taken");
    return response;
}

void expectSame(const Response& actual, const Response& expected) {
    EXPECT_EQ(actual.status, expected.status);
    EXPECT_EQ(actual.errorCode, expected.errorCode);
    EXPECT_EQ(actual.httpResponse, expected.httpResponse);
}

void expectTimeout(const Response& response) {
    expectSame(response, {Response::ERROR, Response::TIMEOUT});
}

TEST(SynchronousCall, ReturnsAtOnceAnAnswerThatComesDuringTheCall) {
    const Response response = someResponse();
    for (const milliseconds timeout : {kUnlimited, milliseconds(1), milliseconds(-1),
                                       milliseconds::min(), milliseconds::max()}) {
        expectSame(ClientTestAccess::synchronized(
                       [&](const Promise& promise) { promise->set_value(response); }, timeout),
                   response);
    }
}

TEST(SynchronousCall, WaitsWithoutLimitWhenItIsZero) {
    Caller caller(kUnlimited);
    EXPECT_TRUE(caller.isWaiting());
    const Response response = someResponse();
    caller.answer(response);
    expectSame(caller.get(), response);
}

TEST(SynchronousCall, WaitsForAnAnswerWithinTheLimit) {
    Caller caller(std::chrono::hours(1));
    EXPECT_TRUE(caller.isWaiting());
    const Response response = someResponse();
    caller.answer(response);
    expectSame(caller.get(), response);
}

TEST(SynchronousCall, WaitsWithTheLargestLimits) {
    for (const milliseconds timeout :
         {milliseconds::max(), milliseconds::max() - milliseconds(1), milliseconds::max() / 2,
          milliseconds(std::chrono::hours(24 * 365 * 300))}) {
        Caller caller(timeout);
        EXPECT_TRUE(caller.isWaiting()) << timeout.count();
        const Response response = someResponse();
        caller.answer(response);
        expectSame(caller.get(), response);
    }
}

TEST(SynchronousCall, EndsInATimeOutWhenTheLimitHasPassed) {
    const auto start = steady_clock::now();
    Promise unanswered;
    expectTimeout(ClientTestAccess::synchronized(
        [&](const Promise& promise) { unanswered = promise; }, milliseconds(100)));
    const auto waited = steady_clock::now() - start;
    EXPECT_GE(waited, milliseconds(100));
    EXPECT_LT(waited, std::chrono::seconds(10));
}

TEST(SynchronousCall, DoesNotWaitWithANegativeLimit) {
    const auto start = steady_clock::now();
    for (const milliseconds timeout : {milliseconds(-1), milliseconds::min()}) {
        Promise unanswered;
        expectTimeout(ClientTestAccess::synchronized(
            [&](const Promise& promise) { unanswered = promise; }, timeout));
    }
    EXPECT_LT(steady_clock::now() - start, std::chrono::seconds(10));
}

TEST(SynchronousCall, EndsInATimeOutWhenItsPromiseIsDropped) {
    const auto start = steady_clock::now();
    std::weak_ptr<std::promise<Response>> dropped;
    expectTimeout(ClientTestAccess::synchronized([&](const Promise& promise) { dropped = promise; },
                                                 milliseconds(100)));
    EXPECT_GE(steady_clock::now() - start, milliseconds(100));
    EXPECT_TRUE(dropped.expired());
}

TEST(SynchronousCall, AbsorbsAnAnswerThatComesTooLate) {
    Promise late;
    ClientTestAccess::synchronized([&](const Promise& promise) { late = promise; },
                                   milliseconds(1));
    EXPECT_EQ(late.use_count(), 1) << "it lives on with whoever is to answer";
    EXPECT_NO_THROW(late->set_value(someResponse()));
}

TEST(SynchronousCall, RefusesASecondAnswerWhereItIsGiven) {
    const Response first(Response::OK, Response::NONE);
    Promise kept;
    expectSame(ClientTestAccess::synchronized(
                   [&](const Promise& promise) {
                       promise->set_value(first);
                       EXPECT_THROW(promise->set_value(someResponse()), std::future_error);
                       kept = promise;
                   },
                   milliseconds(1)),
               first);
    EXPECT_THROW(kept->set_value(someResponse()), std::future_error);
}

TEST(SynchronousCall, LetsExceptionsOfTheCallThrough) {
    EXPECT_THROW(
        ClientTestAccess::synchronized([](const Promise&) { throw std::bad_alloc(); }, kUnlimited),
        std::bad_alloc);
    EXPECT_THROW(ClientTestAccess::synchronized({}, kUnlimited), std::bad_function_call);
}

}  // namespace
}  // namespace orvx::serviceregistryclient
