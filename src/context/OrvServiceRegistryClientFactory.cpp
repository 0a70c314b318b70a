// Makes the library's own client. Only this file and the context use its class outside src/client/.
// Entered by the thread that initialises a context; no lock.

#include <serviceregistryclient/OrvServiceRegistryClientFactory.h>

#include "../client/OrvServiceRegistryClient.h"

#include <orvx/utility/OrvFoundationException.h>

#include <utility>

namespace orvx::serviceregistryclient {

IOrvServiceRegistryClientFactory::~IOrvServiceRegistryClientFactory() = default;
IOrvServiceRegistryClient::~IOrvServiceRegistryClient() = default;

OrvServiceRegistryClientFactory::OrvServiceRegistryClientFactory(OrvServiceRegistryContext& context)
    : context_(context) {}

std::unique_ptr<IOrvServiceRegistryClient>
OrvServiceRegistryClientFactory::createOrvServiceRegistryClient(
    std::shared_ptr<utility::ILoggerFactory> loggerFactory, bool registerWithPrefix) {
    if (!loggerFactory) {
        throw utility::OrvFoundationException(
            "A client needs a logger factory, not a null pointer.", 0);
    }
    return std::make_unique<OrvServiceRegistryClient>(std::move(loggerFactory), registerWithPrefix,
                                                      context_);
}

}  // namespace orvx::serviceregistryclient
