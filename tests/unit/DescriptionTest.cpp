// Descriptions that are built from the user's endpoint.
#include "ClientTest.h"
#include "FunctionFactory.h"

namespace orvx::serviceregistryclient {
namespace {

using common::ServiceInfo;
using common::ServiceVersion;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class Description : public ClientTest {};

TEST_F(Description, TakesOverTheEndpoint) {
    start();
    const auto built =
        client().getServiceCreate({"echo", "host", 8080, "prefix/", ServiceVersion("1.4.2")});
    EXPECT_EQ(json(built),
              R"({"host":"host","name":"echo","port":8080,"prefix":"prefix/","uri":"/echo",)"
              R"("versions":["1.4.2"]})");
}

TEST_F(Description, HasNoId) {
    start();
    const auto built = client().getSharedServiceCreate({"echo", "host", 80});
    EXPECT_EQ(built->getId(), "");
}

TEST_F(Description, HasTheUriOfASlashAndTheNameUnlessPrefixesAreAskedFor) {
    start();
    EXPECT_EQ(client().getSharedServiceCreate({"echo", "host", 80, "/base/"})->getUri(), "/echo");
    EXPECT_EQ(client().getSharedServiceCreate({"echo", "host", 80})->getUri(), "/echo");
}

TEST_F(Description, HasTheUriOfThePrefixDirectlyFollowedByTheNameWherePrefixesAreAskedFor) {
    context.setRegisterWithPrefix(true);
    start();
    EXPECT_EQ(client().getSharedServiceCreate({"echo", "host", 80, "base"})->getUri(), "baseecho");
    EXPECT_EQ(client().getSharedServiceCreate({"echo", "host", 80, "/base/"})->getUri(),
              "/base/echo");
    EXPECT_EQ(client().getSharedServiceCreate({"echo", "host", 80})->getUri(), "echo");
}

TEST_F(Description, HasVersionsOnlyWhereTheEndpointHasOne) {
    start();
    const auto without = client().getSharedServiceCreate({"echo", "host", 80});
    EXPECT_FALSE(without->hasVersions());
    const auto with =
        client().getSharedServiceCreate({"echo", "host", 80, "", ServiceVersion("2")});
    EXPECT_THAT(with->getVersions(), ElementsAre("2"));
}

TEST_F(Description, HasAnyPortOfTheEndpoint) {
    start();
    for (const int port : {0, 1, 65535}) {
        const ServiceInfo own("echo", "host", static_cast<std::uint16_t>(port));
        EXPECT_EQ(client().getServiceCreate(own).getPort(), port);
        EXPECT_EQ(json(client().getServiceCreate(own)), R"({"host":"host","name":"echo","port":)" +
                                                            std::to_string(port) +
                                                            R"(,"uri":"/echo"})");
    }
}

TEST_F(Description, IsANewObjectWithEveryCall) {
    start();
    const ServiceInfo own("echo", "host", 80);
    const auto first = client().getSharedServiceCreate(own);
    const auto second = client().getSharedServiceCreate(own);
    EXPECT_NE(first, second);
    EXPECT_EQ(json(*first), json(*second));
    first->setDescription("changed");
    EXPECT_NE(json(*first), json(*second));
}

TEST_F(Description, NeedsNeitherTheNetworkNorARunningClient) {
    start();
    client().deinit();
    EXPECT_EQ(client().getServiceCreate({"echo", "host", 80}).getName(), "echo");
    EXPECT_EQ(world.requestsToTake(), 0U);
    EXPECT_THAT(registrationIds(), IsEmpty());
}

TEST_F(Description, CanBeRegisteredAsItIs) {
    start();
    client().registerServiceAtRegistry(
        registry, client().getSharedServiceCreate({"echo", "host", 80}), record("echo"));
    const simulation::Request put = next("PUT");
    EXPECT_EQ(put.path(), "/echo");
    EXPECT_EQ(put.body(),
              R"({"description":"echo","host":"host","name":"echo","port":80,"privileges":[],)"
              R"("serviceCategories":[],"uri":"/echo","versions":[]})");
}

/// A client that marks the descriptions that it makes.
class MarkingClient : public OrvServiceRegistryClient {
  public:
    using OrvServiceRegistryClient::OrvServiceRegistryClient;
    std::shared_ptr<common::ServiceCreate> getSharedServiceCreate(
        const ServiceInfo& serviceInfo) override {
        last = OrvServiceRegistryClient::getSharedServiceCreate(serviceInfo);
        last->setDescription("marked");
        return last;
    }

    std::shared_ptr<common::ServiceCreate> last;
};

TEST_F(Description, ByValueIsACopyOfTheSharedOneOverriddenOrNot) {
    context.setOrvServiceRegistryClientFactory(
        std::make_shared<FunctionFactory>([this](const auto& loggerFactory, bool withPrefix) {
            return std::make_unique<MarkingClient>(loggerFactory, withPrefix, context);
        }));
    start();
    common::ServiceCreate built = client().getServiceCreate({"echo", "host", 80});
    EXPECT_EQ(built.getDescription(), "marked");
    built.setDescription("changed");
    const auto& last = dynamic_cast<MarkingClient&>(client()).last;
    EXPECT_EQ(last->getDescription(), "marked");
    EXPECT_EQ(last.use_count(), 1);
}

}  // namespace
}  // namespace orvx::serviceregistryclient
