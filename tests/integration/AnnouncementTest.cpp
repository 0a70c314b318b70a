// One service, announced asynchronously, as the registry sees it.
// Threads: the test's, the client's three and the registry's; they share sockets and journals.
#include "IntegrationTest.h"

#include <nlohmann/json.hpp>

namespace orvx::serviceregistryclient {
namespace {

using ::testing::ElementsAre;

using AnAnnouncedService = IntegrationTest;

TEST_F(AnAnnouncedService, StandsAtTheRegistryAsItWasDescribed) {
    start();
    const auto lamp = service("Küche");
    lamp->setId("mine");
    lamp->setUri("/kitchen/lamp?floor=2");
    lamp->setDescription("the \"big\" one");
    lamp->setPort(8080);
    lamp->setVersions({"1.0", "2.0"});
    lamp->setPrivileges({"read"});
    lamp->setServiceCategories({"light", "home"});
    lamp->getGenericObject().setValue("host", "10.0.0.7");
    lamp->getGenericObject().setValue("dimmable", true);
    const auto result = client().registerServiceAtRegistry(at(registry.port()), lamp);
    ASSERT_EQ(text(result.response), "OK/NONE");
    const json list = entries();
    ASSERT_EQ(list.size(), 1U);
    EXPECT_EQ(list[0].at("path"), "/kitchen/lamp?floor=2");
    EXPECT_EQ("/" + list[0].at("uuid").get<std::string>(),
              result.response.httpResponse->getLocation());
    EXPECT_EQ(list[0].at("service"), json({{"name", "Küche"},
                                           {"uri", "/kitchen/lamp?floor=2"},
                                           {"description", "the \"big\" one"},
                                           {"port", 8080},
                                           {"versions", {"1.0", "2.0"}},
                                           {"privileges", {"read"}},
                                           {"serviceCategories", {"light", "home"}},
                                           {"host", "10.0.0.7"},
                                           {"dimmable", true}}));
}

TEST_F(AnAnnouncedService, IsCheckedAndAnnouncedAgainWhenLostAndLeavesWhenWithdrawn) {
    context.setCheckInterval(0s);
    start();
    const auto withdraw = registered("lamp", registry.port());
    const json first = entries().at(0);
    EXPECT_TRUE(eventually([&] { return entries().at(0).at("checks") > 1; }));

    const std::string target = "/" + first.at("uuid").get<std::string>();
    ASSERT_EQ(registry.connect().ask(registry::makeRequest("DELETE", target)).result_int(), 200U);
    EXPECT_THAT(notifications.await(3), ElementsAre(true, false, true));
    const json second = entries().at(0);
    EXPECT_NE(second.at("uuid"), first.at("uuid"));
    EXPECT_EQ(second.at("path"), first.at("path"));
    EXPECT_EQ(second.at("service"), first.at("service"));
    EXPECT_TRUE(eventually([&] { return entries().at(0).at("checks") > 1; }));

    EXPECT_EQ(outcomeOf(withdraw), "OK/NONE");
    EXPECT_TRUE(entries().empty());
    EXPECT_THAT(notifications.await(4), ElementsAre(true, false, true, false));
}

TEST_F(AnAnnouncedService, MayBeWithdrawnTwice) {
    start();
    const auto withdraw = registered("lamp", registry.port());
    EXPECT_EQ(outcomeOf(withdraw), "OK/NONE");
    EXPECT_EQ(outcomeOf(withdraw), "OK/NONE");
    EXPECT_THAT(notifications.await(2), ElementsAre(true, false));
}

TEST_F(AnAnnouncedService, RemainsAtTheRegistryWhenItsClientEnds) {
    start();
    registered("lamp", registry.port());
    context.deinit();
    EXPECT_EQ(entries().size(), 1U);
}

TEST_F(AnAnnouncedService, StaysAtItsOwnRegistry) {
    start();
    const registry::RunningRegistry other;
    const auto withdraw = registered("lamp", registry.port());
    registered("bell", other.port());
    EXPECT_EQ(entries().at(0).at("path"), "/lamp");
    EXPECT_EQ(entriesAt(other.port()).at(0).at("path"), "/bell");
    EXPECT_EQ(outcomeOf(withdraw), "OK/NONE");
    EXPECT_TRUE(entries().empty());
    EXPECT_EQ(entriesAt(other.port()).size(), 1U);
}

}  // namespace
}  // namespace orvx::serviceregistryclient
