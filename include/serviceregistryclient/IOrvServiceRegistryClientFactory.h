#pragma once

#include <serviceregistryclient/IOrvServiceRegistryClient.h>

#include <orvx/utility/ILoggerFactory.h>

#include <memory>

namespace orvx::serviceregistryclient {

/// Makes the client of a context. Implement it to use a client of your own, usually one that
/// contains the library's client, made by an OrvServiceRegistryClientFactory, and forwards the
/// operations. Declare the library's client as the last member of yours: its destructor calls
/// callbacks, which may get your client from the context. The class of the library's client is
/// internal: it cannot be derived from.
/// Called by OrvServiceRegistryContext::init(), on the thread that calls init().
class ORVX_EXPORT IOrvServiceRegistryClientFactory {
  public:
    virtual ~IOrvServiceRegistryClientFactory();

    /// Makes a new client, ready to use, owned by the caller. `registerWithPrefix` is the context's
    /// option of that name. Exceptions leave the context's init().
    virtual std::unique_ptr<IOrvServiceRegistryClient> createOrvServiceRegistryClient(
        std::shared_ptr<utility::ILoggerFactory> loggerFactory, bool registerWithPrefix) = 0;
};

}  // namespace orvx::serviceregistryclient
