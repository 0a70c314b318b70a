// The client's interpretation of an entry's location.
//
// Threads: the test's, the client's and the server's.

#include "ProtocolTest.h"

namespace orvx::serviceregistryclient {
namespace {

using ::testing::ElementsAre;
using testing::warning;

class ALocation : public ProtocolTest {
  protected:
    /// Registers a service with this answer, and withdraws it. Returns the target of the DELETE.
    std::string deletedAfter(const std::string& answer) {
        server.nextRequest(answer);
        const Handle handle = registered("lamp");
        EXPECT_EQ(outcomeOfWithdrawal(handle), kWithdrawn);
        return server.requests().back().target;
    }
    std::string deletedAt(const std::string& location) { return deletedAfter(created(location)); }
};

TEST_F(ALocation, NamesTheEntryAfterItsLastSlash) {
    start();
    EXPECT_EQ(deletedAt("/uuid"), "/uuid");
    EXPECT_EQ(deletedAt("/entries/of/uuid"), "/uuid");
    EXPECT_EQ(deletedAt("entries/uuid"), "/uuid");
    EXPECT_EQ(deletedAt("http://other.unknown.test:81/entries/uuid"), "/uuid");
    EXPECT_EQ(deletedAt("//other.unknown.test/uuid"), "/uuid");
    EXPECT_EQ(deletedAt("/uuid?a=b#c"), "/uuid?a=b%23c");
    EXPECT_EQ(deletedAt("/uuid?a=/b"), "/b");
    EXPECT_EQ(deletedAt("/.."), "/..");
    EXPECT_EQ(deletedAt("/@evil.unknown.test"), "/@evil.unknown.test");
    EXPECT_EQ(deletedAt("/a b\tc"), "/a%20b%09c");
    EXPECT_EQ(deletedAt("/\xC3\xA9[31m\xFF"), "/%C3%A9%5B31m%FF");
    EXPECT_EQ(server.counters().connections, 1U);
    expectItWorks();
}

TEST_F(ALocation, MayBeSpeltInAnyWay) {
    start();
    EXPECT_EQ(deletedAfter(response(201, {{"LOCATION", "/a"}})), "/a");
    EXPECT_EQ(deletedAfter(response(201, {{"location", "  /b \t"}})), "/b");
    EXPECT_EQ(deletedAfter(response(201, {{"Location", "/c"}, {"Location", "/d"}})), "/c");
    EXPECT_EQ(deletedAfter("HTTP/1.1 201 X\r\nLocation:/e\r\nContent-Length:0\r\n\r\n"), "/e");
    EXPECT_EQ(deletedAfter("HTTP/1.1 201 X\r\nLocation:\r\n /f\r\nContent-Length: 0\r\n\r\n"),
              "/f");
}

TEST_F(ALocation, MayBeLong) {
    const std::string uuid(64 << 10, 'u');
    start();
    EXPECT_EQ(deletedAt("/entries/" + uuid), '/' + uuid);
    expectItWorks();
}

TEST_F(ALocation, IsNeededForASuccess) {
    start();
    for (const char* status : {"200", "201"}) {
        EXPECT_EQ(outcomeOf(response(std::stoi(status))), refused(status));
        EXPECT_EQ(outcomeOf(response(std::stoi(status), {{"Content-Location", "/a"}})),
                  refused(status));
    }
    EXPECT_THAT(logged(),
                ::testing::Contains(warning("HTTP response is missing location field")).Times(4));
    expectItWorks();
}

TEST_F(ALocation, NeedsASlash) {
    start();
    EXPECT_EQ(outcomeOf(created("")), refused("201"));
    EXPECT_EQ(outcomeOf(created("uuid")), refused("201"));
    EXPECT_THAT(logged(), ElementsAre(warning("Cannot parse service uuid from HTTP location: "),
                                      warning("response put request was not ok, status=201"),
                                      warning("Cannot parse service uuid from HTTP location: uuid"),
                                      warning("response put request was not ok, status=201")));
    expectItWorks();
}

TEST_F(ALocation, ThatEndsInASlashNamesAnEntryThatIsCheckedButCannotBeWithdrawn) {
    context->enableCheck(true);
    context->setCheckInterval(seconds(0));
    start();
    server.nextRequest(created("/entries/"));
    server.nextRequest(Script().silence());
    const Handle handle = registered("lamp");
    ASSERT_TRUE(server.waitForRequests(2));
    EXPECT_THAT(requestLines(), ElementsAre("PUT /lamp", "HEAD /"));
    EXPECT_EQ(outcomeOfWithdrawal(handle), "ERROR/SERVICE_NOT_FOUND");
}

TEST_F(ALocation, OfAnotherServiceMakesOneEntryOfTwo) {
    start();
    server.nextRequest(created("/same"));
    server.nextRequest(created("/same"));
    const Handle first = registered("first");
    const Handle second = registered("second");
    EXPECT_EQ(outcomeOfWithdrawal(second), kWithdrawn);
    EXPECT_EQ(outcomeOfWithdrawal(first), "OK/NONE");
    EXPECT_THAT(requestLines(), ElementsAre("PUT /first", "PUT /second", "DELETE /same"));
    expectNotifications({"first is there", "first is gone"});
    expectItWorks();
}

}  // namespace
}  // namespace orvx::serviceregistryclient
