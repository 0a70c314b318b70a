// A plug-in with a client. The program that loads it does not know the library. Entered by the
// thread that loads it; no lock.

#include "Plugin.h"

#include <serviceregistryclient/OrvServiceRegistryContext.h>

#include <memory>
#include <string>

using namespace orvx::serviceregistryclient;
using orvx::common::ServiceInfo;

namespace {

std::unique_ptr<OrvServiceRegistryContext> context;
SyncOrvRegistrationResponse lamp;

bool isOk(const OrvRegistrationResponse& outcome) {
    return outcome.status == OrvRegistrationResponse::OK;
}

std::shared_ptr<orvx::common::ServiceCreate> service(const std::string& name) {
    return context->getServiceRegistryClient()->getSharedServiceCreate({name, "127.0.0.1", 80});
}

}  // namespace

bool announce(std::uint16_t port) {
    context = std::make_unique<OrvServiceRegistryContext>();
    context->init();
    lamp = context->getServiceRegistryClient()->registerServiceAtRegistry(
        ServiceInfo("registry", "127.0.0.1", port), service("lamp"));
    return isOk(lamp.response);
}

void announceAtHost(const char* host) {
    context->getServiceRegistryClient()->registerServiceAtRegistry(
        ServiceInfo("registry", host, 80), service("door"), nullptr);
}

bool withdraw() {
    const bool isWithdrawn = isOk(lamp.unregister());
    lamp = {};
    context.reset();
    return isWithdrawn;
}
