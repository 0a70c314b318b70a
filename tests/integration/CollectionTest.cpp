// Many services in one blocking call, compared with the registry's own list after each step.
// Threads: the test's, the client's three and the registry's; they share sockets only.
#include "IntegrationTest.h"

#include <map>

namespace orvx::serviceregistryclient {
namespace {

using ACollection = IntegrationTest;
using Locations = std::map<std::string, std::string>;

constexpr int kLamps = 200;

/// The location of each entry, by the name of its service.
Locations locationsIn(const json& entries) {
    Locations locations;
    for (const json& entry : entries) {
        locations[entry.at("service").at("name")] = "/" + entry.at("uuid").get<std::string>();
    }
    return locations;
}

TEST_F(ACollection, IsRegisteredAndWithdrawnInOneCallEach) {
    start();
    const auto lamps = services("lamp", kLamps);
    const auto [allRegistered, results] =
        client().registerServicesAtRegistry(at(registry.port()), lamps);
    EXPECT_TRUE(allRegistered);
    Locations told;
    for (const auto& [lamp, result] : results) {
        EXPECT_EQ(text(result.response), "OK/NONE");
        EXPECT_EQ(lamps.count(std::static_pointer_cast<common::ServiceCreate>(lamp)), 1U);
        told[lamp->getName()] = result.response.httpResponse->getLocation().value_or("none");
    }
    EXPECT_EQ(told.size(), std::size_t{kLamps});
    EXPECT_EQ(told, locationsIn(entries()));

    const auto [allWithdrawn, withdrawals] = client().unregisterAllServicesFromRegistry();
    EXPECT_TRUE(allWithdrawn);
    EXPECT_TRUE(entries().empty());
    Locations withdrawn;
    for (const auto& [lamp, outcome] : withdrawals) {
        EXPECT_EQ(text(outcome), "OK/NONE");
        withdrawn[lamp->getName()] = "/" + lamp->getId();
    }
    EXPECT_EQ(withdrawn, told);
}

TEST_F(ACollection, IsWithdrawnOneByOneWithTheFunctionsOfItsResult) {
    start();
    auto results =
        client().registerServicesAtRegistry(at(registry.port()), services("lamp", 20)).second;
    Locations left = locationsIn(entries());
    EXPECT_EQ(left.size(), 20U);
    for (const auto& [lamp, result] : results) {
        EXPECT_EQ(text(result.unregister()), "OK/NONE");
        left.erase(lamp->getName());
        EXPECT_EQ(locationsIn(entries()), left);
    }
}

TEST_F(ACollection, IsRegisteredInPartsAndWithdrawnInOneCall) {
    start();
    for (const std::string name : {"lamp", "bell", "door"}) {
        EXPECT_TRUE(
            client().registerServicesAtRegistry(at(registry.port()), services(name, 85)).first);
    }
    EXPECT_EQ(entries().size(), 255U);
    EXPECT_TRUE(client().unregisterAllServicesFromRegistry().first);
    EXPECT_TRUE(entries().empty());
}

}  // namespace
}  // namespace orvx::serviceregistryclient
