// Registering a service: the request, the record, and the private copy of the description.
#include "ClientTest.h"
#include "States.h"

namespace orvx::serviceregistryclient {
namespace {

using common::GenericObjectValue;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class Registration : public ClientTest {
  protected:
    /// A description with all values that the client sets, and with others.
    static std::shared_ptr<common::ServiceCreate> fullService() {
        auto full = service("echo", "/own/path");
        full->setId("mine");
        full->setDescription("Echoes.");
        full->setPort(80);
        full->setVersions({"1", "2"});
        full->setPrivileges({"read"});
        full->setServiceCategories({"tools"});
        full->getGenericObject().setValue(
            "nested", GenericObjectValue::Object{{"list", GenericObjectValue::List{1, "two"}}});
        return full;
    }
    void registerDescription(const std::shared_ptr<common::ServiceCreate>& description) {
        client().registerServiceAtRegistry(registry, description, record("echo"));
    }
};

TEST_F(Registration, SendsThePutAndReportsTheEntry) {
    start();
    client().addServiceRegisterStatusListener(listen());
    registerService("echo");
    simulation::Request put = next("PUT");
    EXPECT_EQ(put.path(), "/echo");
    EXPECT_EQ(put.host(), "127.0.0.1");
    EXPECT_EQ(put.port(), 8500);
    EXPECT_EQ(put.contentType(), "application/json");
    EXPECT_EQ(put.accept(), "application/json");
    EXPECT_EQ(put.body(),
              R"({"description":"echo","name":"echo","privileges":[],"serviceCategories":[],)"
              R"("uri":"/echo","versions":[]})");
    put.answer(201, location("/entries/abc"));
    EXPECT_THAT(outcomes, IsEmpty()) << "never on the thread that brings the answer";
    world.settle();
    EXPECT_THAT(takeOutcomes(), ElementsAre(Outcome{"echo", "OK", "NONE", 201}));
    EXPECT_EQ(uuidOf(1), "abc");
    EXPECT_EQ(notifiedDescription->getUri(), "/entries/abc");
    EXPECT_THAT(log->takeLines(), IsEmpty());
}

TEST_F(Registration, LeavesARecordThatWaitsForTheFirstAnswer) {
    start();
    registerDescription(fullService());
    const auto record = access().copyOf(1);
    EXPECT_EQ(record.state, state::registering);
    EXPECT_FALSE(record.wasRegistered);
    EXPECT_EQ(record.registerCallbacks, 1U);
    EXPECT_EQ(record.retryCount, 0);
    EXPECT_EQ(record.unregisterCallbacks, std::nullopt);
    EXPECT_FALSE(record.hasRegistryEntry);
    EXPECT_TRUE(record.hasBackoffSequence);
    EXPECT_EQ(statusOf(1).endpoint, registry.getKey());
    EXPECT_EQ(statusOf(1).uri, "/own/path");
}

TEST_F(Registration, OfTheSameDescriptionTwiceMakesTwoEntries) {
    start();
    client().addServiceRegisterStatusListener(listen());
    const auto description = service("echo");
    registerDescription(description);
    registerDescription(description);
    EXPECT_THAT(registrationIds(), ElementsAre(1, 2));
    simulation::Request first = next("PUT");
    simulation::Request second = next("PUT");
    EXPECT_EQ(first.body(), second.body());
    first.answer(201, location("/abc"));
    world.settle();
    const auto firstDescription = notifiedDescription;
    second.answer(201, location("/def"));
    world.settle();
    EXPECT_NE(notifiedDescription, firstDescription);
    EXPECT_EQ(uuidOf(1), "abc");
    EXPECT_EQ(uuidOf(2), "def");
}

TEST_F(Registration, SendsTheWholeDescriptionButNoId) {
    start();
    registerDescription(fullService());
    const simulation::Request put = next("PUT");
    EXPECT_EQ(put.path(), "/own/path");
    EXPECT_EQ(put.body(),
              R"({"description":"Echoes.","name":"echo","nested":{"list":[1,"two"]},"port":80,)"
              R"("privileges":["read"],"serviceCategories":["tools"],"uri":"/own/path",)"
              R"("versions":["1","2"]})");
}

TEST_F(Registration, CompletesOnlyTheValueThatIsMissing) {
    const std::pair<std::string, GenericObjectValue> defaults[] = {
        {"uri", "/echo"},
        {"description", "echo"},
        {"privileges", GenericObjectValue::List{}},
        {"serviceCategories", GenericObjectValue::List{}},
        {"versions", GenericObjectValue::List{}},
    };
    start();
    for (const auto& [key, value] : defaults) {
        const auto description = fullService();
        description->getGenericObject().removeValue(key);
        registerDescription(description);
        description->getGenericObject().setValue(key, value);
        description->getGenericObject().removeValue("id");
        EXPECT_EQ(next("PUT").body(), json(*description));
    }
}

TEST_F(Registration, LeavesValuesThatAreSetToNothingAsTheyAre) {
    start();
    const auto description = service("echo");
    description->setUri("");
    description->setDescription("");
    registerDescription(description);
    const simulation::Request put = next("PUT");
    EXPECT_EQ(put.path(), "/");
    EXPECT_EQ(put.body(),
              R"({"description":"","name":"echo","privileges":[],"serviceCategories":[],)"
              R"("uri":"","versions":[]})");
}

TEST_F(Registration, NeverChangesTheCallersDescription) {
    start();
    const auto description = service("echo");
    description->setId("mine");
    const std::string before = json(*description);
    registerDescription(description);
    EXPECT_EQ(json(*description), before);
    next("PUT").answer(201, location("/abc"));
    world.settle();
    EXPECT_EQ(json(*description), before);
    loseEntry();
    EXPECT_EQ(json(*description), before);
    next("PUT").answer(201, location("/def"));
    world.settle();
    EXPECT_EQ(json(*description), before);
    EXPECT_EQ(uuidOf(1), "def");
}

TEST_F(Registration, IsNotChangedByLaterChangesOfTheCallersDescription) {
    start();
    client().addServiceRegisterStatusListener(listen());
    auto description = fullService();
    registerDescription(description);
    simulation::Request put = next("PUT");
    put.answer(201, location("/abc"));
    world.settle();
    description->setDescription("changed");
    description->getGenericObject().setValue("nested", "changed");
    EXPECT_EQ(notifiedDescription->getDescription(), "Echoes.");
    description.reset();
    loseEntry();
    const simulation::Request again = next("PUT");
    EXPECT_EQ(again.path(), put.path());
    EXPECT_EQ(again.body(), put.body());
}

TEST_F(Registration, KeepsItsOwnCopyOfTheRegistrysEndpoint) {
    start();
    auto endpoint = std::make_unique<common::ServiceInfo>("registry", "127.0.0.9", 9999);
    client().registerServiceAtRegistry(*endpoint, service("echo"), record("echo"));
    endpoint.reset();
    simulation::Request put = next("PUT");
    EXPECT_EQ(put.host(), "127.0.0.9");
    put.answer(communication::HttpResponse(communication::CommunicationStatus::ConnectFailed));
    world.advance(context.getRetryInterval());
    EXPECT_EQ(next("PUT").port(), 9999);
}

TEST_F(Registration, GivesAHandleThatWithdrawsTheService) {
    start();
    registered("first", "abc");
    const Handle handle = registered("second", "def");
    takeOutcomes();
    handle(record("withdrawal"));
    simulation::Request withdrawal = next("DELETE");
    EXPECT_EQ(withdrawal.path(), "/def");
    withdrawal.answer(200);
    world.settle();
    EXPECT_THAT(takeOutcomes(), ElementsAre(Outcome{"withdrawal", "OK", "NONE", 200}));
    EXPECT_THAT(registrationIds(), ElementsAre(1));
}

}  // namespace
}  // namespace orvx::serviceregistryclient
