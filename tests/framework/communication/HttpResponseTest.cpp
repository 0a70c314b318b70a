// Outcomes of requests, and the parsing of their header lines. One thread.

#include <gtest/gtest.h>
#include <orvx/communication/HttpResponse.h>

namespace orvx::communication {
namespace {

using StatusCode = HttpResponse::StatusCode;
using Headers = std::vector<HttpMessage::Header>;

HttpResponse withHeaders(std::string lines) {
    return HttpResponse(StatusCode::Ok, std::move(lines), "");
}

TEST(TheHttpResponse, IsAnAnswerWithEverythingThatCame) {
    const HttpResponse response(StatusCode::Created, "Location: /services/1\r\n", "body");
    EXPECT_EQ(response.getCommunicationStatus(), CommunicationStatus::Ok);
    EXPECT_EQ(response.getStatusCode(), StatusCode::Created);
    EXPECT_EQ(response.getLocation(), "/services/1");
    EXPECT_EQ(response.getBody(), "body");
    EXPECT_EQ(response.getContentLength(), 4U);
}

TEST(TheHttpResponse, IsEmptyWithoutAnAnswer) {
    const HttpResponse response(CommunicationStatus::TimedOut);
    EXPECT_EQ(response.getCommunicationStatus(), CommunicationStatus::TimedOut);
    EXPECT_EQ(response.getStatusCode(), StatusCode::None);
    EXPECT_EQ(response.getHeaders(), Headers{});
    EXPECT_EQ(response.getLocation(), std::nullopt);
    EXPECT_EQ(response.getContentType(), std::nullopt);
    EXPECT_EQ(response.getBody(), "");
    EXPECT_EQ(response.getContentLength(), 0U);
}

TEST(TheHttpResponse, TellsTheCauseWhereThereIsNoAnswer) {
    const HttpResponse response(CommunicationStatus::ConnectFailed, "refused by 10.0.0.5:80");
    EXPECT_EQ(response.getCommunicationStatus(), CommunicationStatus::ConnectFailed);
    EXPECT_EQ(response.getCause(), "refused by 10.0.0.5:80");
    EXPECT_EQ(response.getBody(), "");
    EXPECT_EQ(response.getContentLength(), 0U);
    EXPECT_EQ(HttpResponse(StatusCode::Ok, "", "body").getCause(), "");
}

TEST(TheHttpResponse, KeepsStatusCodesThatHaveNoName) {
    for (int number : {0, 100, 226, 299, 418, 599, 999}) {
        const HttpResponse response(static_cast<StatusCode>(number), "", "");
        EXPECT_EQ(static_cast<int>(response.getStatusCode()), number);
    }
}

TEST(TheHttpResponse, CountsEveryByteOfTheBody) {
    const std::string body("a\0b\r\n", 5);
    const HttpResponse response(StatusCode::Ok, "Content-Length: 99\r\n", body);
    EXPECT_EQ(response.getBody(), body);
    EXPECT_EQ(response.getContentLength(), 5U);
}

TEST(TheHttpResponse, IsReadThroughTheInterfaceOfAllMessages) {
    const HttpResponse response(StatusCode::Ok, "content-TYPE:text/plain\n", "body");
    const HttpMessage& message = response;
    EXPECT_EQ(message.getContentType(), "text/plain");
    EXPECT_TRUE(message.hasHeader("Content-Type"));
    EXPECT_EQ(message.getBody(), "body");
}

TEST(TheHttpResponse, IsIndependentOfItsCopy) {
    HttpResponse response = withHeaders("A: 1\r\n");
    const HttpResponse copy(response);
    response = HttpResponse(CommunicationStatus::CutShort);
    EXPECT_EQ(copy.getCommunicationStatus(), CommunicationStatus::Ok);
    EXPECT_EQ(copy.getHeader("A"), "1");
}

TEST(TheHeadersOfAResponse, StandInTheOrderReceivedAndAsTheyWereSpelt) {
    const HttpResponse response = withHeaders("b: 1\r\nA: 2\r\nB: 3\r\n");
    EXPECT_EQ(response.getHeaders(), (Headers{{"b", "1"}, {"A", "2"}, {"B", "3"}}));
}

TEST(TheHeadersOfAResponse, AreFoundInUpperAndLowerCase) {
    const HttpResponse response = withHeaders("LoCaTiOn: /x\r\n");
    EXPECT_EQ(response.getHeader("location"), "/x");
    EXPECT_EQ(response.getHeader("LOCATION"), "/x");
    EXPECT_TRUE(response.hasHeader("Location"));
}

TEST(TheHeadersOfAResponse, AreFoundByTheirWholeNameOnly) {
    const HttpResponse response = withHeaders("X-Location: /x\r\nLocatio: /y\r\nLocation2: /z\r\n");
    EXPECT_FALSE(response.hasHeader("Location"));
    EXPECT_EQ(response.getLocation(), std::nullopt);
    EXPECT_EQ(withHeaders("{: x\r\n@: y\r\n").getHeader("["), std::nullopt);
    EXPECT_EQ(withHeaders("@: y\r\n").getHeader("`"), std::nullopt);
}

TEST(TheHeadersOfAResponse, AreReadFromTheFirstOfThatName) {
    EXPECT_EQ(withHeaders("location: /first\r\nLocation: /second\r\n").getLocation(), "/first");
}

TEST(TheHeadersOfAResponse, ComeWithoutTheSpaceAroundTheirValues) {
    EXPECT_EQ(withHeaders("A: \t  x y\t \t\r\n").getHeader("A"), "x y");
    EXPECT_EQ(withHeaders("A:x\r\n").getHeader("A"), "x");
}

TEST(TheHeadersOfAResponse, MayBeEmptyWithoutBeingAbsent) {
    for (const char* lines : {"Location:\r\n", "Location: \t \r\n", "Location:\n", "Location:"}) {
        EXPECT_EQ(withHeaders(lines).getLocation(), "") << lines;
        EXPECT_TRUE(withHeaders(lines).hasHeader("Location")) << lines;
    }
}

TEST(TheHeadersOfAResponse, EndInCarriageReturnAndLineFeedOrALineFeedAlone) {
    EXPECT_EQ(withHeaders("A: 1\nB: 2\r\nC: 3\n\r\n").getHeaders(),
              (Headers{{"A", "1"}, {"B", "2"}, {"C", "3"}}));
}

TEST(TheHeadersOfAResponse, AreReadFromALineThatWasNotEnded) {
    EXPECT_EQ(withHeaders("A: 1\r\nB: 2").getHeader("B"), "2");
}

TEST(TheHeadersOfAResponse, KeepTheColonsOfTheirValues) {
    EXPECT_EQ(withHeaders("Location: http://host:80/a:b\r\n").getLocation(), "http://host:80/a:b");
}

TEST(TheHeadersOfAResponse, DoNotHoldLinesWithoutAColon) {
    EXPECT_EQ(withHeaders("garbage\r\n\r\nA: 1\r\nmore\r\n").getHeaders(), (Headers{{"A", "1"}}));
    EXPECT_EQ(withHeaders("").getHeaders(), Headers{});
    EXPECT_EQ(withHeaders("\n\n\r\n").getHeaders(), Headers{});
}

TEST(TheHeadersOfAResponse, ContinueInLinesThatBeginWithSpace) {
    EXPECT_EQ(withHeaders("A: x \r\n  y\r\n\t z\t\r\nB: 1\r\n").getHeaders(),
              (Headers{{"A", "x y z"}, {"B", "1"}}));
}

TEST(TheHeadersOfAResponse, HaveNoSpaceOfTheirOwnWhereAFoldHoldsNothing) {
    EXPECT_EQ(withHeaders("A:\r\n /x\r\n").getHeader("A"), "/x");
    EXPECT_EQ(withHeaders("A: x\r\n \t\r\n").getHeader("A"), "x");
}

TEST(TheHeadersOfAResponse, DoNotTakeAFoldForAHeader) {
    EXPECT_EQ(withHeaders("A: x\r\n Location: /y\r\n").getLocation(), std::nullopt);
}

TEST(TheHeadersOfAResponse, DoNotContinueAfterALineThatIsNoHeader) {
    EXPECT_EQ(withHeaders(" lost: 1\r\nA: x\r\ngarbage\r\n lost\r\n").getHeaders(),
              (Headers{{"A", "x"}}));
}

TEST(TheHeadersOfAResponse, MayBeVeryLong) {
    const std::string value(64 * 1024, 'x');
    EXPECT_EQ(withHeaders("Location: /" + value + "\r\n").getLocation(), '/' + value);
}

TEST(TheHeadersOfAResponse, KeepBytesThatAreNotText) {
    EXPECT_EQ(withHeaders(std::string("A: x\0\xFF\x1By\r\n", 10)).getHeader("A"),
              std::string("x\0\xFF\x1By", 5));
}

}  // namespace
}  // namespace orvx::communication
