// The requests of the benchmarks: the same through the library and through the yardsticks. No
// thread, no lock.

#include "Requests.h"

#include <sstream>

namespace orvx::benchmarks {

std::shared_ptr<common::ServiceCreate> makeService(std::size_t number) {
    const std::string name = "service-" + std::to_string(1000000 + number);
    auto service = std::make_shared<common::ServiceCreate>(
        std::make_unique<common::XObject>("", name, "/v1/services/" + name));
    service->setDescription(
        "Measures the temperature of a room and reports it every minute, or at once when it "
        "changes by a degree");
    service->setPort(8080);
    service->setVersions({"1.4.2", "1.5.0"});
    service->setPrivileges({"read", "write"});
    service->setServiceCategories({"sensor", "climate"});
    service->getGenericObject().setValue("host", "10.0.0.17");
    return service;
}

std::string jsonOf(const common::ServiceCreate& service) {
    std::ostringstream stream;
    service.getGenericObject().toJSONStream(stream, false);
    return stream.str();
}

std::size_t textsOf(const common::ServiceCreate& service) {
    // In JSON each value occurs once, with its key. Location and id are made from the name.
    const std::size_t json = jsonOf(service).size();
    return 2 * json + service.getUri().size() + 2 * service.getName().size();
}

Requests::Requests(std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
        services.push_back(makeService(i));
        uris.push_back(services.back()->getUri());
        entries.push_back("/" + services.back()->getName());
        bodies.push_back(jsonOf(*services.back()));
    }
}

}  // namespace orvx::benchmarks
