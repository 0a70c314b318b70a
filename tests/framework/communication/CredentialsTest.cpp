// Credentials: the header of a request, the time from which new credentials are used, and error
// messages without the refused text.

#include "HttpTest.h"

#include <orvx/utility/OrvFoundationException.h>

#include <string>
#include <thread>

namespace orvx::testing {
namespace {

using communication::HttpCredentials;
using ::testing::HasSubstr;
using ::testing::Not;
using utility::OrvFoundationException;
using namespace std::string_literals;

class TheCredentials : public HttpTest {
  protected:
    TheCredentials() {
        server_.onRequest([](const Request&) { return response(200); });
    }
    SessionPointer sessionWithThem() {
        HttpConfig config;
        config.credentials = credentials;
        config.connectionsPerEndpoint = 1;
        return session(config);
    }
    std::string shown() const {
        return server_.requests().back().header("Authorization").value_or("");
    }
    bool isShown() const {
        return server_.requests().back().raw.find("Authorization") != std::string::npos;
    }
    template <typename Set>
    static std::string refusalOf(Set set) {
        try {
            set();
        } catch (const OrvFoundationException& exception) {
            EXPECT_EQ(exception.errorCode(), 0);
            return exception.what();
        }
        return "";
    }

    std::shared_ptr<HttpCredentials> credentials = std::make_shared<HttpCredentials>();
};

TEST_F(TheCredentials, AreNothingAtFirst) {
    EXPECT_EQ(credentials->headerValue(), "");
    put(sessionWithThem());
    EXPECT_FALSE(isShown());
}

TEST_F(TheCredentials, AreShownWithEveryRequest) {
    credentials->setBearerToken("abc.def");
    const SessionPointer session = sessionWithThem();
    put(session);
    EXPECT_EQ(shown(), "Bearer abc.def");
    head(session);
    EXPECT_EQ(shown(), "Bearer abc.def");
    remove(session);
    EXPECT_EQ(shown(), "Bearer abc.def");
}

TEST_F(TheCredentials, AreWrittenInBaseSixtyFourWithAPassword) {
    for (const auto& [user, password, written] :
         {std::tuple{"a", "", "YTo="},
          {"a", "b", "YTpi"},
          {"a", "bc", "YTpiYw=="},
          {"Aladdin", "open sesame", "QWxhZGRpbjpvcGVuIHNlc2FtZQ=="},
          {"", "", "Og=="},
          {"\xFF\xFB", "\xF0:", "//s68Do="}}) {
        credentials->setBasic(user, password);
        EXPECT_EQ(credentials->headerValue(), "Basic "s + written);
    }
}

TEST_F(TheCredentials, AreThoseOfTheMomentWhenARequestIsSent) {
    const SessionPointer session = sessionWithThem();
    put(session);
    credentials->setBearerToken("old");
    put(session);
    EXPECT_EQ(shown(), "Bearer old");
    credentials->setBearerToken("new");
    put(session);
    EXPECT_EQ(shown(), "Bearer new");
    credentials->setBasic("a", "b");
    put(session);
    EXPECT_EQ(shown(), "Basic YTpi");
    credentials->clear();
    put(session);
    EXPECT_FALSE(isShown());
    EXPECT_EQ(server_.counters().connections, 1U);
}

TEST_F(TheCredentials, MayBeReplacedWhileRequestsAreSent) {
    credentials->setBearerToken("a");
    const SessionPointer session = sessionWithThem();
    std::thread replacing([this] {
        for (int i = 0; i < 1000; ++i) {
            credentials->setBearerToken(std::string(i % 2 == 0 ? 10 : 1000, 'a'));
        }
    });
    for (int i = 0; i < 50; ++i) {
        put(session);
    }
    replacing.join();
    for (const Request& request : server_.requests()) {
        const std::string value = request.header("Authorization").value();
        EXPECT_EQ(value, "Bearer " + std::string(value.size() - 7, 'a'));
    }
}

TEST_F(TheCredentials, RefuseWhatNoHeaderCanHoldAndKeepWhatTheyAre) {
    credentials->setBearerToken("kept");
    for (const std::string& text : {"se\rcret"s, "secret\n"s, "se\0cret"s, "\tsecret"s}) {
        const std::string token = refusalOf([&] { credentials->setBearerToken(text); });
        EXPECT_EQ(token, "HttpCredentials: a token must not contain control characters.");
        const std::string user = refusalOf([&] { credentials->setBasic(text, ""); });
        EXPECT_EQ(user, "HttpCredentials: a user must not contain control characters.");
        const std::string password = refusalOf([&] { credentials->setBasic("a", text); });
        EXPECT_EQ(password, "HttpCredentials: a password must not contain control characters.");
    }
    EXPECT_EQ(refusalOf([&] { credentials->setBearerToken(""); }),
              "HttpCredentials: a token must not be empty.");
    EXPECT_EQ(refusalOf([&] { credentials->setBasic("a:secret", ""); }),
              "HttpCredentials: a user must not contain a colon.");
    EXPECT_EQ(credentials->headerValue(), "Bearer kept");
}

TEST_F(TheCredentials, DoNotFollowARedirect) {
    HostileServer elsewhere;
    server_.onRequest([&elsewhere](const Request&) {
        return response(307, {{"Location", elsewhere.url("/")}});
    });
    credentials->setBearerToken("secret");
    EXPECT_EQ(codeOf(put(sessionWithThem())), 307);
    EXPECT_EQ(elsewhere.counters().connections, 0U);
}

}  // namespace
}  // namespace orvx::testing
