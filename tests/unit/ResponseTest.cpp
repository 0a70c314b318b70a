// The value that carries an outcome.
#include <serviceregistryclient/OrvRegistrationResponse.h>

#include <gtest/gtest.h>

#include <limits>

namespace orvx::serviceregistryclient {
namespace {

using Response = OrvRegistrationResponse;
using communication::HttpResponse;

TEST(Response, NamesEveryStatusUnderItsNumber) {
    EXPECT_STREQ(Response::statusString(static_cast<Response::Status>(0)), "OK");
    EXPECT_STREQ(Response::statusString(static_cast<Response::Status>(1)), "ERROR");
    EXPECT_EQ(Response::OK, 0);
    EXPECT_EQ(Response::ERROR, 1);
}

TEST(Response, NamesEveryErrorCodeUnderItsNumber) {
    const std::pair<Response::ErrorCode, const char*> names[] = {
        {Response::NONE, "NONE"},
        {Response::SERVICE_NAME_MISSING, "SERVICE_NAME_MISSING"},
        {Response::DELEGATOR_NOT_INITIATED, "DELEGATOR_NOT_INITIATED"},
        {Response::SERVICE_NOT_FOUND, "SERVICE_NOT_FOUND"},
        {Response::SERVICE_REGISTRY_ERROR, "SERVICE_REGISTRY_ERROR"},
        {Response::TIMEOUT, "TIMEOUT"},
        {Response::OTHER, "OTHER"},
    };
    int number = 0;
    for (const auto& [code, name] : names) {
        EXPECT_EQ(code, number++);
        EXPECT_STREQ(Response::errorCodeString(code), name);
    }
}

TEST(Response, HasTheEmptyTextForEveryOtherNumber) {
    for (const int number : {2, -1, std::numeric_limits<int>::max()}) {
        EXPECT_STREQ(Response::statusString(static_cast<Response::Status>(number)), "");
    }
    for (const int number : {7, -1, std::numeric_limits<int>::min()}) {
        EXPECT_STREQ(Response::errorCodeString(static_cast<Response::ErrorCode>(number)), "");
    }
}

TEST(Response, IsMadeOfStatusAndErrorCodeWithoutAnHttpAnswer) {
    const Response response(Response::ERROR, Response::TIMEOUT);
    EXPECT_EQ(response.status, Response::ERROR);
    EXPECT_EQ(response.errorCode, Response::TIMEOUT);
    EXPECT_EQ(response.httpResponse, nullptr);
}

TEST(Response, SharesItsHttpAnswerWithItsCopies) {
    Response response(Response::OK, Response::NONE);
    response.httpResponse =
        std::make_shared<HttpResponse>(HttpResponse::StatusCode::Created, "", "body");
    const Response copy = response;
    EXPECT_EQ(copy.httpResponse, response.httpResponse);
    EXPECT_EQ(copy.status, Response::OK);
    EXPECT_EQ(copy.errorCode, Response::NONE);
}

}  // namespace
}  // namespace orvx::serviceregistryclient
