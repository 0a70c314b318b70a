// The service under test. It announces itself and tracks the state of its registration.
// The listener runs on the client's callback thread; only the flag is shared.
#include "EchoService.h"

EchoService::EchoService(orvx::serviceregistryclient::IOrvServiceRegistryClient& client,
                         const orvx::common::ServiceInfo& registry) {
    client.addServiceRegisterStatusListener(
        [flag = canBeFound_](const auto& /*service*/, bool registered) { *flag = registered; });
    const orvx::common::ServiceInfo self("echo", "127.0.0.1", 8080);
    const auto echo = client.getSharedServiceCreate(self);
    echo->setUri("/echo/127.0.0.1:8080");  // another instance puts its entry at another path
    client.registerServiceAtRegistry(registry, echo, nullptr);
}
