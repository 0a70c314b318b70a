// The outcomes of valid and invalid answers.

#include "HttpTest.h"

namespace orvx::testing {
namespace {

using namespace std::chrono_literals;
using namespace std::string_literals;
using ::testing::ElementsAre;
using ::testing::Pair;

class AnAnswer : public HttpTest {
  protected:
    /// The outcome of a PUT when the server sends these bytes and then closes.
    HttpResponse to(const std::string& bytes, const HttpConfig& config = {}) {
        return toScript(Script().send(bytes).close(), config);
    }
    HttpResponse toScript(const Script& script, const HttpConfig& config = {}) {
        server_.nextRequest(script);
        return put(session(config), "/", "content");
    }
    static std::string header(std::size_t size) {
        return "A: " + std::string(size - 5, 'a') + "\r\n";
    }
};

/// An outcome without an answer has no other content.
::testing::Matcher<HttpResponse> failsWith(CommunicationStatus status) {
    return ::testing::Truly([status](const HttpResponse& response) {
        EXPECT_EQ(response.getCommunicationStatus(), status);
        return response.getCommunicationStatus() == status && codeOf(response) == 0 &&
               response.getHeaders().empty() && response.getBody().empty();
    });
}

TEST_F(AnAnswer, HasItsStatusCodeHeadersAndBody) {
    const HttpResponse response = to(
        "HTTP/1.1 201 Created\r\nLocation: /entries/1\r\nX-Two:  a \r\nContent-Length: 4\r\n\r\nb\0d\xFF"s);
    EXPECT_EQ(response.getCommunicationStatus(), CommunicationStatus::Ok);
    EXPECT_EQ(codeOf(response), 201);
    EXPECT_THAT(response.getHeaders(),
                ElementsAre(Pair("Location", "/entries/1"), Pair("X-Two", "a"),
                            Pair("Content-Length", "4")));
    EXPECT_EQ(response.getBody(), "b\0d\xFF"s);
}

TEST_F(AnAnswer, MayBeInPieces) {
    const HttpResponse response = toScript(Script().drip(
        "HTTP/1.1 200 OK\r\nA: b\r\nTransfer-Encoding: chunked\r\n\r\n2\r\nxy\r\n0\r\n\r\n", 1ms));
    EXPECT_EQ(response.getBody(), "xy");
    EXPECT_EQ(response.getHeader("A"), "b");
}

// It ended the process where Boost's assertions were enabled.
TEST_F(AnAnswer, MayBeCutInsideTheLastChunk) {
    const HttpResponse response =
        toScript(Script()
                     .send("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n")
                     .pause(1ms)
                     .send("0\r\n")
                     .pause(1ms)
                     .drip("\r\n", 1ms));
    EXPECT_EQ(response.getCommunicationStatus(), CommunicationStatus::Ok);
}

TEST_F(AnAnswer, MayHaveTrailersWhichAreNoHeaders) {
    const HttpResponse response =
        to("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n1\r\nx\r\n0\r\nB: c\r\n\r\n");
    EXPECT_EQ(response.getCommunicationStatus(), CommunicationStatus::Ok);
    EXPECT_FALSE(response.hasHeader("B"));
}

TEST_F(AnAnswer, MayEndWithTheConnection) {
    EXPECT_EQ(to("HTTP/1.0 200 OK\r\n\r\nbody").getBody(), "body");
}

TEST_F(AnAnswer, MayHaveAnyStatusCodeOfThreeDigits) {
    for (const int code : {200, 299, 301, 304, 404, 500, 600, 999}) {
        const auto line = "HTTP/1.1 " + std::to_string(code);
        EXPECT_EQ(codeOf(to(line + "\r\nContent-Length: 0\r\n\r\n")), code);
        EXPECT_EQ(codeOf(to(line + " \r\nContent-Length: 0\r\n\r\n")), code);
        EXPECT_EQ(codeOf(to(line + " R\xC3\xA4son\r\nContent-Length: 0\r\n\r\n")), code);
    }
}

TEST_F(AnAnswer, IsNotFollowedElsewhere) {
    const HttpResponse response =
        to("HTTP/1.1 307 Go\r\nLocation: " + server_.url("/x") + "\r\nContent-Length: 0\r\n\r\n");
    EXPECT_EQ(codeOf(response), 307);
    EXPECT_EQ(server_.counters().requests, 1U);
}

TEST_F(AnAnswer, IsNotUnpacked) {
    EXPECT_EQ(
        to("HTTP/1.1 200 OK\r\nContent-Encoding: gzip\r\nContent-Length: 2\r\n\r\nab").getBody(),
        "ab");
}

TEST_F(AnAnswer, MayComeAfterInterimOnesWhoseHeadersAreNotItsOwn) {
    const HttpResponse response =
        to("HTTP/1.1 100 Continue\r\nA: 1\r\n\r\nHTTP/1.1 103 Hints\r\nB: 2\r\n\r\n"
           "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n");
    EXPECT_EQ(codeOf(response), 200);
    EXPECT_THAT(response.getHeaders(), ElementsAre(Pair("Content-Length", "0")));
}

TEST_F(AnAnswer, IsCutShortIfOnlyInterimOnesCome) {
    EXPECT_THAT(to("HTTP/1.1 100 Continue\r\n\r\n"), failsWith(CommunicationStatus::CutShort));
    EXPECT_THAT(to("HTTP/1.1 103 Hints\r\nA: b\r\n\r\n"), failsWith(CommunicationStatus::CutShort));
    EXPECT_THAT(to("HTTP/1.1 103 Hints\r\nA: b\r\n"), failsWith(CommunicationStatus::CutShort));
}

TEST_F(AnAnswer, IsMalformedIfItSwitchesProtocolsUnasked) {
    for (const char* const next : {"abc", "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n"}) {
        EXPECT_THAT(to("HTTP/1.1 101 Switching\r\nUpgrade: x\r\n\r\n"s + next),
                    failsWith(CommunicationStatus::Malformed))
            << next;
    }
}

TEST_F(AnAnswer, IsMalformedWithoutAProperStatusLine) {
    for (const char* const line :
         {"hello", "HTTP/1.1 abc", "HTTP/2 200", "HTTP/1.2 200 OK", "HTTP/1.1 99 OK",
          "HTTP/1.1 099 OK", "HTTP/1.1 2000 OK", "HTTP/1.1  200 OK", "HTTP/1.1200 OK", "HTTP/1.1",
          "http/1.1 200 OK", " HTTP/1.1 200 OK", "HTTP/1.1\t200 OK", "HTTP 200 OK", "ICY 200 OK",
          "<html>", "220 smtp ready", "HTTP/1.1 200\tOK", "HTTP/0.9 200 OK"}) {
        EXPECT_THAT(to(line + "\r\nContent-Length: 0\r\n\r\n"s),
                    failsWith(CommunicationStatus::Malformed))
            << line;
    }
}

TEST_F(AnAnswer, IsMalformedAsSoonAsItDoesNotBeginLikeOne) {
    for (const char* const bytes : {"h", "HTTP/2", "220 smtp ready"}) {
        EXPECT_THAT(toScript(Script().send(bytes).silence()),
                    failsWith(CommunicationStatus::Malformed))
            << bytes;
    }
}

TEST_F(AnAnswer, IsMalformedIfItsHeadersOrChunksMakeNoSense) {
    for (const std::string& rest :
         {"Content-Length: abc\r\n\r\n"s, "Content-Length: -1\r\n\r\n"s, "Content-Length:\r\n\r\n"s,
          "content-length: 0x2\r\n\r\n"s, "Content-Length: 2, 2\r\n\r\nab"s,
          "Content-Length: +2\r\n\r\nab"s, "Content-Length: 2 2\r\n\r\nab"s,
          "Content-Length:\r\n 2\r\n\r\nab"s, "Content-Length: 2\r\n 2\r\n\r\nab"s,
          "Content-Length: 2\r\n\t\r\n\r\nab"s,
          "Content-Length: 2\r\nContent-Length: 3\r\n\r\nabc"s, "A: \0b\r\n\r\n"s, "\ra\r\n\r\n"s,
          "a\rb: c\r\n\r\n"s, "Transfer-Encoding: chunked\r\n\r\nzz\r\nabc"s,
          "Transfer-Encoding: gzip\r\n\r\nab"s,
          "Transfer-Encoding: gzip, chunked\r\n\r\n0\r\n\r\n"s,
          "Content-Length: 2\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n"s,
          "Transfer-Encoding: chunked\r\nContent-Length: 2\r\n\r\n0\r\n\r\n"s}) {
        EXPECT_THAT(to("HTTP/1.1 200 OK\r\n" + rest), failsWith(CommunicationStatus::Malformed))
            << rest;
    }
}

TEST_F(AnAnswer, IsMalformedIfItHasChunksInTheOldProtocol) {
    EXPECT_THAT(to("HTTP/1.0 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n"),
                failsWith(CommunicationStatus::Malformed));
}

TEST_F(AnAnswer, IsMalformedAsSoonAsALineOfItsChunksEndsWithoutACarriageReturn) {
    for (const char* const chunks : {"2\nab", "2\r\nab\r\n0\r\nA: b\n", "0\r\n\n"}) {
        EXPECT_THAT(
            toScript(Script()
                         .send("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n"s + chunks)
                         .silence()),
            failsWith(CommunicationStatus::Malformed))
            << chunks;
    }
}

TEST_F(AnAnswer, IsTooLargeIfALineOfItsChunksIsEndless) {
    for (const char* const chunks : {"2;a=", "0\r\nA: "}) {
        EXPECT_THAT(toScript(Script()
                                 .send("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n"s +
                                       chunks + std::string(8192, 'a'))
                                 .silence()),
                    failsWith(CommunicationStatus::TooLarge))
            << chunks;
    }
}

TEST_F(AnAnswer, MayGiveItsLengthTwice) {
    EXPECT_EQ(to("HTTP/1.1 200 OK\r\nContent-Length: 2\r\ncontent-length:2 \r\n\r\nab").getBody(),
              "ab");
}

TEST_F(AnAnswer, IsCutShortIfItEndsInsideItsHeaders) {
    const std::string whole = "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n";
    for (std::size_t length = whole.find('\n') + 1; length < whole.size() - 1; ++length) {
        EXPECT_THAT(to(whole.substr(0, length)), failsWith(CommunicationStatus::CutShort))
            << length;
    }
}

TEST_F(AnAnswer, IsCutShortIfItEndsInsideItsBody) {
    const std::string start = "HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\n";
    for (const char* const body : {"", "a", "abcd"}) {
        EXPECT_THAT(to(start + body), failsWith(CommunicationStatus::CutShort));
        EXPECT_THAT(toScript(Script().send(start + body).reset()),
                    failsWith(CommunicationStatus::CutShort));
    }
    for (const char* const chunks : {"", "5\r\nab", "2\r\nab\r\n", "2\r\nab\r\n0\r\n"}) {
        EXPECT_THAT(
            to(std::string("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n") + chunks),
            failsWith(CommunicationStatus::CutShort))
            << chunks;
    }
}

TEST_F(AnAnswer, IsJudgedWhateverBecameOfTheOneBefore) {
    const std::string start = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";
    const SessionPointer connection = session(oneConnection());
    server_.nextRequest(Script().send(start).reset());
    server_.nextRequest(start + "zz\r\n");
    server_.nextRequest(response(200));
    EXPECT_THAT(put(connection), failsWith(CommunicationStatus::CutShort));
    EXPECT_THAT(put(connection), failsWith(CommunicationStatus::Malformed));
    EXPECT_EQ(codeOf(put(connection)), 200);
}

TEST_F(AnAnswer, HasNotComeIfTheServerClosesInstead) {
    EXPECT_THAT(to(""), failsWith(CommunicationStatus::ReceiveFailed));
    EXPECT_THAT(toScript(Script().reset()), failsWith(CommunicationStatus::ReceiveFailed));
}

// The outcome was once ReceiveFailed.
TEST_F(AnAnswer, HasNotComeIfTheConnectionBreaksWhileTheBodyIsSent) {
    server_.everyConnection(Script().readBytes(1).reset());
    const std::string body(64 << 20, ' ');
    EXPECT_THAT(put(session(), "/", body), failsWith(CommunicationStatus::SendFailed));
}

TEST_F(AnAnswer, IsTooLargeIfItsHeadersExceedTheirCap) {
    HttpConfig config;
    config.maxHeaderBytes = 1000;
    // The status line, the blank line and this one have 19 + 2 + 979 bytes.
    const auto withHeader = [](std::size_t size) {
        return "HTTP/1.0 200 Fine\r\n" + header(size) + "\r\n";
    };
    EXPECT_EQ(codeOf(to(withHeader(979), config)), 200);
    EXPECT_THAT(to(withHeader(980), config), failsWith(CommunicationStatus::TooLarge));
    std::string many = "HTTP/1.1 200 OK\r\n";
    for (int i = 0; i < 100; ++i) {
        many += header(20);
    }
    EXPECT_THAT(to(many + "\r\n", config), failsWith(CommunicationStatus::TooLarge));
}

TEST_F(AnAnswer, IsTooLargeIfOneHeaderIsEndless) {
    for (const char* const start :
         {"HTTP/1.1 200 ", "HTTP/1.1 200 OK\r\nA: ", "HTTP/1.1 200 OK\r\nA: b\r\nC"}) {
        EXPECT_THAT(toScript(Script().send(start).sendEndlessly("aaaa")),
                    failsWith(CommunicationStatus::TooLarge))
            << start;
    }
}

TEST_F(AnAnswer, IsTooLargeIfItsHeadersAreEndlessWhateverTheCap) {
    HttpConfig config;
    config.maxHeaderBytes = ~std::size_t{0};
    EXPECT_THAT(toScript(Script().send("HTTP/1.1 200 OK\r\n").sendEndlessly(header(1000)), config),
                failsWith(CommunicationStatus::TooLarge));
}

TEST_F(AnAnswer, IsTooLargeIfItsInterimOnesAreEndless) {
    HttpConfig uncapped;
    uncapped.maxHeaderBytes = ~std::size_t{0};
    for (const HttpConfig& config : {HttpConfig(), uncapped}) {
        EXPECT_THAT(toScript(Script().sendEndlessly("HTTP/1.1 103 Hints\r\n\r\n"), config),
                    failsWith(CommunicationStatus::TooLarge));
    }
}

TEST_F(AnAnswer, IsTooLargeIfItsBodyExceedsItsCap) {
    HttpConfig config;
    config.maxBodyBytes = 10;
    EXPECT_EQ(to("HTTP/1.0 200 OK\r\n\r\n0123456789", config).getBody().size(), 10U);
    EXPECT_THAT(to("HTTP/1.0 200 OK\r\n\r\n01234567890", config),
                failsWith(CommunicationStatus::TooLarge));
    EXPECT_THAT(toScript(Script().send("HTTP/1.1 200 OK\r\n\r\n").sendEndlessly("abcd"), config),
                failsWith(CommunicationStatus::TooLarge));
}

// Each chunk header is within the limit of its line, but the chunks never end: this once kept the
// I/O thread busy.
TEST_F(AnAnswer, IsTooLargeIfTheExtensionsOfItsChunksAreEndless) {
    const std::string chunk = "1;" + std::string(3000, 'x') + "\r\na\r\n";
    EXPECT_THAT(toScript(Script()
                             .send("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n")
                             .sendEndlessly(chunk)),
                failsWith(CommunicationStatus::TooLarge));
}

TEST_F(AnAnswer, MayHaveManySmallChunks) {
    std::string body;
    for (int i = 0; i < 20000; ++i) {
        body += "1;a=b\r\nx\r\n";
    }
    EXPECT_EQ(to("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n" + body + "0\r\n\r\n")
                  .getBody()
                  .size(),
              20000U);
}

TEST_F(AnAnswer, IsTooLargeAsSoonAsItAnnouncesTooMuch) {
    for (const char* const length : {"1048577", "99999999999999999999999"}) {
        EXPECT_THAT(toScript(Script()
                                 .send("HTTP/1.1 200 OK\r\nContent-Length: "s + length + "\r\n\r\n")
                                 .silence()),
                    failsWith(CommunicationStatus::TooLarge));
    }
}

TEST_F(AnAnswer, ToAHeadMayAnnounceAnyLength) {
    server_.nextRequest(Script().send("HTTP/1.1 200 OK\r\nContent-Length: 9999999999\r\n\r\n"));
    EXPECT_EQ(codeOf(head(session())), 200);
}

// Only the address sanitizer reliably detects that the bytes are taken as part of the previous
// answer.
TEST_F(AnAnswer, IsMalformedIfItsHeadersBeginWithAFoldedLineWhateverCameBefore) {
    const SessionPointer connection = session(oneConnection());
    server_.nextRequest(response(200, {{"A", "b"}}));
    server_.nextRequest("HTTP/1.1 200 OK\r\n folded\r\nContent-Length: 0\r\n\r\n");
    put(connection);
    EXPECT_THAT(put(connection), failsWith(CommunicationStatus::Malformed));
}

TEST_F(AnAnswer, ThatHasABodyAgainstTheRulesDoesNotSpoilTheNextOne) {
    const SessionPointer connection = session(oneConnection());
    server_.nextRequest(Script().send("HTTP/1.1 200 OK\r\nContent-Length: 3\r\n\r\nabc"));
    server_.nextRequest(Script().send("HTTP/1.1 204 None\r\n\r\nabc"));
    server_.onRequest([](const Request&) { return response(202); });
    EXPECT_EQ(codeOf(head(connection)), 200);
    EXPECT_EQ(codeOf(put(connection)), 204);
    EXPECT_EQ(codeOf(put(connection)), 202);
}

// The server sends bytes without a request after the answer was read, so that they are pending when
// the next request is to be sent. The server closes the connection to show that they were sent.
TEST_F(AnAnswer, IsNotMistakenForWhatCameUnaskedBefore) {
    const std::string unasked = "HTTP/1.1 408 Request Timeout\r\nContent-Length: 0\r\n\r\n";
    const SessionPointer connection = session(oneConnection());
    server_.nextRequest(Script()
                            .send("HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\n")
                            .waitForRelease("answered")
                            .send(unasked)
                            .close());
    server_.onRequest([](const Request&) { return response(202); });
    EXPECT_EQ(codeOf(head(connection)), 200);
    server_.release("answered");
    ASSERT_TRUE(server_.waitFor([](const auto& now) { return now.open == 0; }));
    EXPECT_EQ(codeOf(put(connection)), 202);
    EXPECT_EQ(server_.counters().requests, 2U);
}

}  // namespace
}  // namespace orvx::testing
