// Registrations that are refused during the call: their outcomes and their handles.
#include "ClientTest.h"

namespace orvx::serviceregistryclient {
namespace {

using ::testing::ElementsAre;
using testing::error;
using ::testing::IsEmpty;
using testing::LogLine;
using testing::warning;

class RegistrationRefusal : public ClientTest {
  protected:
    /// Registers a description. The call must be refused with this code, and must have no effect
    /// except its handle.
    Handle refused(const std::shared_ptr<common::ServiceCreate>& description,
                   const std::string& code) {
        Handle handle = client().registerServiceAtRegistry(registry, description, record("echo"));
        EXPECT_THAT(outcomes, IsEmpty()) << "never on the caller's thread";
        deliver();
        EXPECT_THAT(takeOutcomes(), ElementsAre(Outcome{"echo", "ERROR", code, -1}));
        EXPECT_THAT(registrationIds(), IsEmpty());
        EXPECT_EQ(world.requestsToTake(), 0U);
        return handle;
    }
    /// The log lines of a call of the handle, which must answer that there is nothing to withdraw.
    std::vector<LogLine> logOfCalling(const Handle& handle) {
        log->takeLines();
        handle(record("withdrawal"));
        EXPECT_THAT(outcomes, IsEmpty()) << "never on the caller's thread";
        deliver();
        EXPECT_THAT(takeOutcomes(), ElementsAre(Outcome{"withdrawal", "OK", "NONE", -1}));
        EXPECT_EQ(world.requestsToTake(), 0U);
        return log->takeLines();
    }
    /// The outcomes of a client that is not initialised are delivered at its next init().
    void deliver() {
        world.settle();
        if (world.queuedTasks() > 0) {
            client().init();
            world.settle();
            client().deinit();
        }
    }
};

TEST_F(RegistrationRefusal, IsTheOutcomeOfADescriptionWithoutName) {
    start();
    const Handle handle = refused(service(""), "SERVICE_NAME_MISSING");
    EXPECT_THAT(log->takeLines(), ElementsAre(error("Service is missing name")));
    EXPECT_THAT(logOfCalling(handle),
                ElementsAre(warning("Unnamed service is not registered. Cannot be unregistered.")));
}

TEST_F(RegistrationRefusal, IsTheOutcomeOfAnEmptyNameAndOfANameThatIsNoText) {
    start();
    const auto description = service("echo");
    for (const common::GenericObjectValue& name :
         {common::GenericObjectValue(""), common::GenericObjectValue(7)}) {
        description->getGenericObject().setValue("name", name);
        const Handle handle = refused(description, "SERVICE_NAME_MISSING");
        EXPECT_THAT(log->takeLines(), ElementsAre(error("Service is missing name")));
        EXPECT_THAT(
            logOfCalling(handle),
            ElementsAre(warning("Unnamed service is not registered. Cannot be unregistered.")));
    }
}

TEST_F(RegistrationRefusal, IsTheOutcomeOfANullDescription) {
    start();
    const Handle handle = refused(nullptr, "SERVICE_NAME_MISSING");
    EXPECT_THAT(log->takeLines(), ElementsAre(error("Service is missing name")));
    EXPECT_THAT(logOfCalling(handle),
                ElementsAre(warning("Unnamed service is not registered. Cannot be unregistered.")));
}

TEST_F(RegistrationRefusal, IsTheOutcomeOfADescriptionThatCannotBeWrittenAsJson) {
    start();
    const auto description = service("echo");
    description->setDescription("\xff");
    const Handle handle = refused(description, "OTHER");
    EXPECT_THAT(log->takeLines(),
                ElementsAre(error("could not create content to send to registry")));
    EXPECT_THAT(logOfCalling(handle),
                ElementsAre(warning("Service 'echo' to unregister is not registered.")));
}

TEST_F(RegistrationRefusal, IsTheOutcomeOfEveryDescriptionWhileTheClientIsNotInitialised) {
    start();
    client().deinit();
    const std::pair<std::shared_ptr<common::ServiceCreate>, std::string> names[] = {
        {service("echo"), "echo"}, {service(""), ""}, {nullptr, ""}};
    for (const auto& [description, name] : names) {
        const Handle handle = refused(description, "DELEGATOR_NOT_INITIATED");
        EXPECT_THAT(log->takeLines(), IsEmpty());
        EXPECT_THAT(
            logOfCalling(handle),
            ElementsAre(warning("Service '" + name + "' to unregister is not registered.")));
    }
}

TEST_F(RegistrationRefusal, IsNotChangedByALaterChangeOfTheName) {
    start();
    const auto description = service("echo");
    description->setDescription("\xff");
    const Handle handle = refused(description, "OTHER");
    description->getGenericObject().setValue("name", "other");
    EXPECT_THAT(logOfCalling(handle),
                ElementsAre(warning("Service 'echo' to unregister is not registered.")));
}

TEST_F(RegistrationRefusal, DoesNotUseUpAnId) {
    start();
    const auto unwritable = service("echo");
    unwritable->setDescription("\xff");
    refused(service(""), "SERVICE_NAME_MISSING");
    refused(nullptr, "SERVICE_NAME_MISSING");
    refused(unwritable, "OTHER");
    client().deinit();
    refused(service("echo"), "DELEGATOR_NOT_INITIATED");
    client().init();
    registerService("echo");
    EXPECT_THAT(registrationIds(), ElementsAre(1));
}

}  // namespace
}  // namespace orvx::serviceregistryclient
