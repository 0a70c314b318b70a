// Answers to a registration: valid ones, invalid ones, and ones that are too large.
//
// Threads: the test's, the client's and the server's.

#include "ProtocolTest.h"

namespace orvx::serviceregistryclient {
namespace {

using ::testing::AnyOf;
using testing::warning;

const std::string kLocation = "Location: /entries/uuid\r\n";

std::string withStatusLine(const std::string& statusLine) {
    return statusLine + "\r\n" + kLocation + "Content-Length: 0\r\n\r\n";
}

class ARegistry : public ProtocolTest {
  protected:
    /// Expects this outcome for each answer, and a successful registration after each of them.
    void expectOutcomes(const std::vector<Script>& answers, const std::string& expected) {
        for (std::size_t i = 0; i < answers.size(); ++i) {
            SCOPED_TRACE("answer " + std::to_string(i));
            EXPECT_EQ(outcomeOf(answers[i]), expected);
            expectItWorks();
        }
        EXPECT_EQ(server.counters().requests, 2 * answers.size()) << "nothing is sent again";
    }
};

TEST_F(ARegistry, MustAnswerInHttp) {
    start();
    for (const char* statusLine : {"HTTP/1.1 0 Zero",
                                   "HTTP/1.1 000 Zero",
                                   "HTTP/1.1 99 Low",
                                   "HTTP/1.1 099 Low",
                                   "HTTP/1.1 1000 High",
                                   "HTTP/1.1 2010 Created",
                                   "HTTP/1.1 -1 Negative",
                                   "HTTP/1.1 -201 Created",
                                   "HTTP/1.1 +201 Created",
                                   "HTTP/1.1 201Created",
                                   "HTTP/1.1  201 Created",
                                   "HTTP/1.1 20l Created",
                                   "HTTP/1.1 0x201 Created",
                                   "HTTP/1.1 201 Created \x1b[31m",
                                   "HTTP/1.1 ",
                                   "HTTP/1.1",
                                   "HTTP/1.2 201 Created",
                                   "HTTP/0.9 201 Created",
                                   "HTTP/2 201 Created",
                                   "HTTP/2.0 201 Created",
                                   "HTTP/3 201 Created",
                                   "HTTP/11 201 Created",
                                   "HTTPS/1.1 201 Created",
                                   "http/1.1 201 Created",
                                   " HTTP/1.1 201 Created",
                                   "ICY 201 Created",
                                   "RTSP/1.0 201 Created",
                                   "SSH-2.0-OpenSSH_9.2",
                                   "garbage",
                                   "<html>It works.</html>",
                                   "{\"uuid\":\"x\"}",
                                   "\x16\x03\x01\x02",
                                   ""}) {
        SCOPED_TRACE(statusLine);
        EXPECT_EQ(outcomeOf(Script(withStatusLine(statusLine)).close()), refused("MALFORMED"));
        expectItWorks();
    }
}

TEST_F(ARegistry, MustAnswerInHttpEvenIfItKeepsTheConnectionOpen) {
    start();
    expectOutcomes({withStatusLine("HTTP/1.1 000 Zero"), withStatusLine("HTTP/2 201 Created"),
                    withStatusLine("garbage"), std::string(1 << 20, 'x')},
                   refused("MALFORMED"));
}

TEST_F(ARegistry, MayLeaveOutTheReasonAndSpeakTheOlderProtocol) {
    start();
    expectOutcomes(
        {withStatusLine("HTTP/1.1 201"), withStatusLine("HTTP/1.1 201 "),
         withStatusLine("HTTP/1.0 201 Created"), withStatusLine("HTTP/1.1 201 Angelegt \xC3\xBC"),
         withStatusLine("HTTP/1.1 201 " + std::string(10000, 'x'))},
        kRegistered);
}

TEST_F(ARegistry, MustEndItsLinesWithACarriageReturn) {
    start();
    EXPECT_EQ(outcomeOf("HTTP/1.1 201 Created\nLocation: /a\nContent-Length: 0\n\n"),
              refused("MALFORMED"));
    expectItWorks();
}

TEST_F(ARegistry, MayAnswerWithUnknownStatusCodes) {
    start();
    for (const int status : {200, 201}) {
        EXPECT_EQ(outcomeOf(response(status, {{"Location", "/x" + std::to_string(status)}})),
                  "OK/NONE " + std::to_string(status));
    }
    for (const int status :
         {202, 203, 205, 206, 226, 300, 304, 400, 401, 403, 404, 407, 408, 409, 412,
          413, 417, 421, 426, 429, 431, 500, 501, 502, 503, 504, 511, 600, 799, 999}) {
        const std::string code = std::to_string(status);
        log->takeLines();
        EXPECT_EQ(outcomeOf(response(status, {{"Location", "/y"}})), refused(code));
        EXPECT_THAT(
            log->takeLines(),
            ::testing::ElementsAre(warning("response put request was not ok, status=" + code)));
    }
    EXPECT_EQ(server.counters().requests, 32U);
    EXPECT_EQ(server.counters().connections, 1U);
    expectItWorks();
}

TEST_F(ARegistry, ThatAnswersWithoutContentRefusesWhateverBytesFollow) {
    start();
    const std::string noContent = response(204, {{"Location", "/x"}});
    expectOutcomes(
        {noContent, response(204, {{"Location", "/x"}, {"Content-Length", "4"}}) + "body",
         noContent + "something", noContent + created("/forged")},
        refused("204"));
}

TEST_F(ARegistry, MaySayThatItIsAtIt) {
    start();
    const std::string continued = "HTTP/1.1 100 Continue\r\n\r\n";
    std::string patience;
    for (int i = 0; i < 100; ++i) {
        patience += "HTTP/1.1 102 Processing\r\n\r\n";
    }
    expectOutcomes(
        {continued + created("/a"), Script(continued).send(created("/b")), patience + created("/c"),
         "HTTP/1.1 103 Early Hints\r\nLink: </x>\r\n\r\n" + created("/d")},
        kRegistered);
}

TEST_F(ARegistry, DoesNotSayAnythingAboutTheEntryBeforeItsFinalAnswer) {
    start();
    server.nextRequest("HTTP/1.1 103 Early Hints\r\nLocation: /early\r\n\r\n" + created("/final"));
    const Handle handle = registered("lamp");
    EXPECT_EQ(outcomeOfWithdrawal(handle), kWithdrawn);
    EXPECT_EQ(requestLines().back(), "DELETE /final");
    EXPECT_EQ(outcomeOf("HTTP/1.1 103 Early Hints\r\nLocation: /early\r\n\r\n" + response(201)),
              refused("201"));
    expectItWorks();
}

TEST_F(ARegistry, ThatIsAtItForeverIsCutOff) {
    start();
    const std::string continued = "HTTP/1.1 100 Continue\r\n\r\n";
    EXPECT_EQ(outcomeOf(Script().sendEndlessly(continued)), refused("TOO_LARGE"));
    EXPECT_TRUE(server.waitForClosed(1));
    expectItWorks();
}

TEST_F(ARegistry, CannotSwitchToAnotherProtocol) {
    start();
    const std::string switching =
        "HTTP/1.1 101 Switching Protocols\r\nUpgrade: h2c\r\nConnection: Upgrade\r\n\r\n";
    expectOutcomes({switching, switching + created("/a"), Script(switching).close()},
                   refused("MALFORMED"));
}

TEST_F(ARegistry, MaySendItsAnswerInChunks) {
    start();
    const std::string head = "HTTP/1.1 201 Created\r\n" + kLocation;
    const std::string chunked = head + "Transfer-Encoding: chunked\r\n\r\n";
    expectOutcomes({chunked + "0\r\n\r\n", chunked + "2\r\nab\r\n3;x=y\r\ncde\r\n0\r\n\r\n",
                    chunked + "2\r\nab\r\n0\r\nTrailer: x\r\n\r\n",
                    Script().drip(chunked + "a\r\n0123456789\r\n0\r\n\r\n", milliseconds(1)),
                    Script(head + "\r\nuntil the end").close()},
                   kRegistered);
}

TEST_F(ARegistry, ThatSendsChunksThatAreNoneHasNotAnswered) {
    start();
    const std::string chunked =
        "HTTP/1.1 201 Created\r\n" + kLocation + "Transfer-Encoding: chunked\r\n\r\n";
    for (const char* chunks : {"ZZ\r\nab\r\n0\r\n\r\n", "\r\n\r\n", "2\r\nabcd\r\n0\r\n\r\n",
                               "-1\r\n\r\n", "FFFFFFFFFFFFFFFFF\r\nab\r\n"}) {
        SCOPED_TRACE(chunks);
        EXPECT_THAT(outcomeOf(Script(chunked + chunks).close()),
                    AnyOf(refused("MALFORMED"), refused("CUT_SHORT")));
        expectItWorks();
    }
}

TEST_F(ARegistry, ThatMisstatesTheLengthOfItsAnswerHasNotAnswered) {
    http.requestTimeout = kShort;
    start();
    for (const char* length : {"abc", "-1", "99999999999999999999999999"}) {
        SCOPED_TRACE(length);
        const auto outcome = outcomeOf(
            Script(response(201, {{"Location", "/a"}, {"Content-Length", length}}, "ab")).close());
        EXPECT_THAT(outcome, ::testing::StartsWith("ERROR/SERVICE_REGISTRY_ERROR"));
        expectItWorks();
    }
    const std::string tooShort =
        response(201, {{"Location", "/a"}, {"Content-Length", "5"}}, "four");
    EXPECT_EQ(outcomeOf(Script(tooShort).close()), refused("CUT_SHORT"));
    EXPECT_EQ(outcomeOf(tooShort), refused("TIMED_OUT"));
    expectItWorks();
}

TEST_F(ARegistry, ThatSendsMoreThanItAnnouncedIsNotTakenAtItsWordForTheNextAnswer) {
    start();
    const std::string answer = response(201, {{"Location", "/a"}});
    expectOutcomes({answer + "more", answer + created("/forged"), answer + response(500)},
                   kRegistered);
}

TEST_F(ARegistry, ThatSendsSomethingUnaskedIsNotTakenAtItsWordForTheNextAnswer) {
    start();
    for (const std::string& unasked : {response(408), response(500), std::string("more")}) {
        EXPECT_EQ(outcomeOf(Script(created("/a")).waitForRelease(unasked).send(unasked)),
                  kRegistered);
        server.release(unasked);
        const auto connections = server.counters().connections;
        const testing::Socket other = testing::connectLoopback(server.port());
        // By the time the server accepts another connection, it has sent all released bytes.
        ASSERT_TRUE(server.waitForConnections(connections + 1));
        expectItWorks();
    }
    EXPECT_EQ(server.counters().requests, 6U);
}

TEST_F(ARegistry, MayFillItsHeadersUpToTheBound) {
    http.maxHeaderBytes = 10000;
    start();
    const std::string within = response(201, {{"Location", "/a"}, {"X", std::string(9000, 'x')}});
    const std::string beyond = response(201, {{"Location", "/a"}, {"X", std::string(10000, 'x')}});
    std::string many = "HTTP/1.1 201 Created\r\n" + kLocation;
    for (int i = 0; i < 1000; ++i) {
        many += "X-Header: value\r\n";
    }
    expectOutcomes({within}, kRegistered);
    EXPECT_EQ(outcomeOf(beyond), refused("TOO_LARGE"));
    EXPECT_EQ(outcomeOf(many + "\r\n"), refused("TOO_LARGE"));
    expectItWorks();
}

TEST_F(ARegistry, ThatSendsHeadersWithoutEndIsCutOff) {
    start();
    const std::string head = "HTTP/1.1 201 Created\r\n" + kLocation;
    EXPECT_EQ(outcomeOf(Script(head).sendEndlessly("X-Header: value\r\n")), refused("TOO_LARGE"));
    expectItWorks();
    EXPECT_EQ(outcomeOf(Script(head + "X: ").sendEndlessly("x")), refused("TOO_LARGE"));
    expectItWorks();
    EXPECT_EQ(outcomeOf(Script("HTTP/1.1 201 ").sendEndlessly("x")), refused("TOO_LARGE"));
    expectItWorks();
}

TEST_F(ARegistry, MayFillItsBodyUpToTheBound) {
    http.maxBodyBytes = 1000;
    start();
    const std::string within(1000, 'x');
    expectOutcomes({response(201, {{"Location", "/a"}}, within)}, kRegistered);
    EXPECT_EQ(outcomeOf(response(500, {}, within)), refused("500"));
    EXPECT_EQ(logged().back(), warning("error message from service registry=" + within));
    for (const int status : {201, 404, 500}) {
        EXPECT_EQ(outcomeOf(response(status, {{"Location", "/b"}}, within + 'x')),
                  refused("TOO_LARGE"));
        expectItWorks();
    }
    const std::string announced =
        response(201, {{"Location", "/b"}, {"Content-Length", "9999999999"}});
    EXPECT_EQ(outcomeOf(Script(announced).silence()), refused("TOO_LARGE"));
    expectItWorks();
}

TEST_F(ARegistry, ThatSendsABodyWithoutEndIsCutOff) {
    start();
    const std::string head = "HTTP/1.1 201 Created\r\n" + kLocation;
    EXPECT_EQ(outcomeOf(Script(head + "\r\n").sendEndlessly("x")), refused("TOO_LARGE"));
    expectItWorks();
    EXPECT_EQ(
        outcomeOf(
            Script(head + "Transfer-Encoding: chunked\r\n\r\n").sendEndlessly("4\r\nabcd\r\n")),
        refused("TOO_LARGE"));
    expectItWorks();
}

TEST_F(ARegistry, IsNotAskedForCompressionNorBelievedToHaveUsedIt) {
    start();
    EXPECT_EQ(outcomeOf(response(500, {{"Content-Encoding", "gzip"}}, "plain")), refused("500"));
    expectLogged("error message from service registry=plain");
    EXPECT_EQ(server.requests().front().header("Accept-Encoding"), std::nullopt);
    expectItWorks();
}

TEST_F(ARegistry, IsNeverFollowedToAnotherPlace) {
    HostileServer elsewhere;
    start();
    for (const int status : {300, 301, 302, 303, 307, 308}) {
        for (const std::string& location :
             {elsewhere.url("/moved"), server.url("/moved"), std::string("/moved"),
              std::string("file:///etc/passwd"), std::string("gopher://127.0.0.1/x"),
              std::string("//other.unknown.test/")}) {
            EXPECT_EQ(outcomeOf(response(status, {{"Location", location}})),
                      refused(std::to_string(status)));
        }
    }
    EXPECT_EQ(server.counters().requests, 36U);
    EXPECT_EQ(elsewhere.counters().connections, 0U);
    expectItWorks();
}

TEST_F(ARegistry, DoesNotDecideWhenToTryAgain) {
    context->enableRetry(true);
    context->enableRetryOnHttpStatus(true);
    context->setHttpStatusCodesForRetry(
        {communication::HttpResponse::StatusCode::TooManyRequests,
         communication::HttpResponse::StatusCode::ServiceUnavailable});
    context->setInitialMaxRetryCount(2);
    context->setRetryInterval(milliseconds(1));
    start();
    server.nextRequest(response(429, {{"Retry-After", "3600"}}));
    server.nextRequest(response(503, {{"Retry-After", "Fri, 31 Dec 2100 23:59:59 GMT"}}));
    registered("lamp");
    EXPECT_EQ(server.counters().requests, 3U);
    for (int i = 0; i < 3; ++i) {
        server.nextRequest(response(503, {{"Retry-After", "0"}}));
    }
    EXPECT_EQ(outcome(), refused("503"));
    EXPECT_EQ(server.counters().requests, 6U);
    expectItWorks();
}

}  // namespace
}  // namespace orvx::serviceregistryclient
