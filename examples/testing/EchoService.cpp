// The service under test. It announces itself and listens to what becomes of that.
// The listener runs on the client's callback thread; the flag is all that it shares.
#include "EchoService.h"

EchoService::EchoService(orvx::serviceregistryclient::IOrvServiceRegistryClient& client,
                         const orvx::common::ServiceInfo& registry) {
    client.addServiceRegisterStatusListener(
        [flag = canBeFound_](const auto& /*service*/, bool registered) { *flag = registered; });
    const orvx::common::ServiceInfo self("echo", "127.0.0.1", 8080);
    client.registerServiceAtRegistry(registry, client.getSharedServiceCreate(self), nullptr);
}
