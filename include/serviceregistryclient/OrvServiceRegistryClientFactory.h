#pragma once

#include <serviceregistryclient/IOrvServiceRegistryClientFactory.h>

namespace orvx::serviceregistryclient {

class OrvServiceRegistryContext;

/// The factory that a context uses unless it is given another one: makes the library's own client.
/// Thread-safety: may be called from any thread.
class ORVX_EXPORT OrvServiceRegistryClientFactory : public IOrvServiceRegistryClientFactory {
  public:
    /// The context's options are read by the clients that are made: it must outlive them.
    explicit OrvServiceRegistryClientFactory(OrvServiceRegistryContext& context);

    /// Throws utility::OrvFoundationException when `loggerFactory` is null, and what starting the
    /// client throws: utility::OrvFoundationException for an HTTP configuration that makes no
    /// sense, std::system_error when a thread cannot be made (a callback thread that cannot be made
    /// ends the process instead).
    std::unique_ptr<IOrvServiceRegistryClient> createOrvServiceRegistryClient(
        std::shared_ptr<utility::ILoggerFactory> loggerFactory, bool registerWithPrefix) override;

  private:
    OrvServiceRegistryContext& context_;
};

}  // namespace orvx::serviceregistryclient
