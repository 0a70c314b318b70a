// Descriptions: setters, getters, and the state that copies share. One thread.

#include <gtest/gtest.h>
#include <orvx/common/ServiceCreate.h>

#include <limits>
#include <sstream>

namespace orvx::common {
namespace {

using Texts = std::vector<std::string>;

ServiceCreate makeService(const std::string& name = "echo") {
    return ServiceCreate(std::make_unique<XObject>("", name, ""));
}

std::string toText(const ServiceModel& model) {
    std::ostringstream stream;
    model.getGenericObject().toJSONStream(stream, false);
    return stream.str();
}

TEST(TheServiceModel, HasWhatItsObjectHas) {
    const ServiceModel model(std::make_unique<XObject>("1", "echo", "/echo"));
    EXPECT_TRUE(model.hasId());
    EXPECT_EQ(model.getId(), "1");
    EXPECT_TRUE(model.hasName());
    EXPECT_EQ(model.getName(), "echo");
    EXPECT_TRUE(model.hasUri());
    EXPECT_EQ(model.getUri(), "/echo");
}

TEST(TheServiceModel, HasNothingThatWasNotSet) {
    const ServiceModel model(std::make_unique<XObject>("", "", ""));
    EXPECT_FALSE(model.hasId());
    EXPECT_FALSE(model.hasName());
    EXPECT_FALSE(model.hasUri());
    EXPECT_FALSE(model.hasDescription());
    EXPECT_FALSE(model.hasVersions());
    EXPECT_FALSE(model.hasPrivileges());
    EXPECT_FALSE(model.hasServiceCategories());
}

TEST(TheServiceModel, ReturnsEmptyValuesForWhatWasNotSet) {
    const ServiceModel model(std::make_unique<XObject>("", "", ""));
    EXPECT_EQ(model.getId(), "");
    EXPECT_EQ(model.getName(), "");
    EXPECT_EQ(model.getUri(), "");
    EXPECT_EQ(model.getDescription(), "");
    EXPECT_EQ(model.getPort(), 0);
    EXPECT_EQ(model.getVersions(), Texts{});
    EXPECT_EQ(model.getPrivileges(), Texts{});
    EXPECT_EQ(model.getServiceCategories(), Texts{});
}

TEST(TheServiceModel, ReturnsEmptyValuesForWhatIsOfAnotherType) {
    ServiceModel model(std::make_unique<XObject>("", "", ""));
    for (const char* key : {"name", "versions", "port"}) {
        model.getGenericObject().setValue(key, 1.5);
    }
    EXPECT_EQ(model.getName(), "");
    EXPECT_EQ(model.getVersions(), Texts{});
    EXPECT_EQ(model.getPort(), 0);
}

TEST(TheServiceModel, HasNoNameThatIsEmptyOrNoText) {
    ServiceModel model(std::make_unique<XObject>("", "echo", ""));
    for (const GenericObjectValue& name : {GenericObjectValue(""), GenericObjectValue(7),
                                           GenericObjectValue(), GenericObjectValue(true)}) {
        model.getGenericObject().setValue("name", name);
        EXPECT_FALSE(model.hasName());
    }
}

TEST(TheServiceCreate, ReturnsWhatWasSet) {
    ServiceCreate service = makeService();
    service.setId("1");
    service.setUri("/echo");
    service.setDescription("says it again");
    service.setPort(8080);
    service.setVersions({"1", "2"});
    service.setPrivileges({"read"});
    service.setServiceCategories({"audio", "demo"});
    EXPECT_EQ(service.getId(), "1");
    EXPECT_EQ(service.getName(), "echo");
    EXPECT_EQ(service.getUri(), "/echo");
    EXPECT_EQ(service.getDescription(), "says it again");
    EXPECT_EQ(service.getPort(), 8080);
    EXPECT_EQ(service.getVersions(), (Texts{"1", "2"}));
    EXPECT_EQ(service.getPrivileges(), Texts{"read"});
    EXPECT_EQ(service.getServiceCategories(), (Texts{"audio", "demo"}));
}

TEST(TheServiceCreate, HasWhatWasSetToNothing) {
    ServiceCreate service = makeService();
    service.setId("");
    service.setUri("");
    service.setDescription("");
    service.setVersions({});
    service.setPrivileges({});
    service.setServiceCategories({});
    EXPECT_TRUE(service.hasId());
    EXPECT_TRUE(service.hasUri());
    EXPECT_TRUE(service.hasDescription());
    EXPECT_TRUE(service.hasVersions());
    EXPECT_TRUE(service.hasPrivileges());
    EXPECT_TRUE(service.hasServiceCategories());
}

TEST(TheServiceCreate, IsWrittenUnderTheKeysThatTheRegistryReads) {
    ServiceCreate service = makeService();
    service.setId("1");
    service.setUri("/echo");
    service.setDescription("");
    service.setPort(0);
    service.setVersions({"1"});
    service.setPrivileges({});
    service.setServiceCategories({"a"});
    EXPECT_EQ(toText(service),
              R"({"description":"","id":"1","name":"echo","port":0,"privileges":[],)"
              R"("serviceCategories":["a"],"uri":"/echo","versions":["1"]})");
}

TEST(TheServiceCreate, KeepsEveryPortNumberAsItIs) {
    ServiceCreate service = makeService();
    for (long port :
         {std::numeric_limits<long>::min(), -1L, 0L, 65536L, std::numeric_limits<long>::max()}) {
        service.setPort(port);
        EXPECT_EQ(service.getPort(), port);
    }
}

TEST(TheServiceModel, TakesOverNameHostAndPrefixOfAServiceInfo) {
    ServiceModel model(std::make_unique<XObject>("", "", ""));
    model.updateServiceInfo(ServiceInfo("echo", "host", 80, "/api/", ServiceVersion("1")));
    EXPECT_EQ(toText(model), R"({"host":"host","name":"echo","prefix":"/api/"})");
}

TEST(TheServiceModel, KeepsItsValuesWhereAServiceInfoHasNone) {
    ServiceModel model(std::make_unique<XObject>("", "echo", ""));
    model.updateServiceInfo(ServiceInfo("", "host", 80, "/api/"));
    model.updateServiceInfo(ServiceInfo("", "", 80));
    EXPECT_EQ(toText(model), R"({"host":"host","name":"echo","prefix":"/api/"})");
}

TEST(TheServiceModel, GivesAccessToAllItsValues) {
    ServiceCreate service = makeService();
    service.getGenericObject().setValue("custom", 1);
    service.getGenericObject().removeValue("name");
    EXPECT_EQ(toText(service), R"({"custom":1})");
}

TEST(TheServiceModel, IsIndependentOfItsCopy) {
    ServiceCreate original = makeService();
    original.setVersions({"1"});
    ServiceCreate copy(original);
    copy.getGenericObject().removeValue("name");
    original.setVersions({"2"});
    EXPECT_EQ(original.getName(), "echo");
    EXPECT_FALSE(copy.hasName());
    EXPECT_EQ(copy.getVersions(), Texts{"1"});
}

TEST(TheServiceModel, IsIndependentOfWhatItWasAssignedFrom) {
    ServiceCreate source = makeService("source");
    ServiceCreate target = makeService("target");
    target.setUri("/target");
    target = source;
    source.setUri("/source");
    EXPECT_EQ(toText(target), R"({"name":"source"})");
    target.setUri("/changed");
    EXPECT_EQ(source.getUri(), "/source");
}

TEST(TheServiceModel, StaysAsItIsWhenItIsAssignedToItself) {
    ServiceCreate service = makeService();
    const ServiceCreate& self = service;
    service = self;
    EXPECT_EQ(toText(service), R"({"name":"echo"})");
}

TEST(TheServiceModel, CanBeUsedAfterItWasMovedFrom) {
    ServiceCreate service = makeService();
    ServiceCreate taken(std::move(service));
    ServiceCreate assigned = makeService("other");
    assigned = std::move(service);  // NOLINT(bugprone-use-after-move)
    service.setUri("/again");
    EXPECT_EQ(toText(service), R"({"name":"echo","uri":"/again"})");
    EXPECT_EQ(toText(taken), R"({"name":"echo"})");
    EXPECT_EQ(toText(assigned), R"({"name":"echo"})");
}

TEST(TheServiceModel, IsWhatAServiceCreateCanBePassedAs) {
    const auto service = std::make_shared<ServiceCreate>(makeService());
    const std::shared_ptr<ServiceModel> model = service;
    const std::shared_ptr<const ServiceModel> constant = service;
    service->setUri("/echo");
    EXPECT_EQ(model->getUri(), "/echo");
    EXPECT_EQ(constant->getUri(), "/echo");
}

TEST(TheServiceModel, CanBeCopiedOutOfAServiceCreate) {
    const ServiceCreate service = makeService();
    const ServiceModel model(service);
    EXPECT_EQ(model.getName(), "echo");
}

}  // namespace
}  // namespace orvx::common
