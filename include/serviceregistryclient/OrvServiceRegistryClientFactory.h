#pragma once

#include <serviceregistryclient/IOrvServiceRegistryClientFactory.h>

namespace orvx::serviceregistryclient {

class OrvServiceRegistryContext;

/// The default factory of a context: makes the library's own client.
/// Thread-safety: may be called from any thread.
class ORVX_EXPORT OrvServiceRegistryClientFactory : public IOrvServiceRegistryClientFactory {
  public:
    /// Clients read the options of `context`, which must outlive them.
    explicit OrvServiceRegistryClientFactory(OrvServiceRegistryContext& context);

    /// Throws utility::OrvFoundationException if `loggerFactory` is null or the HTTP configuration
    /// is invalid, and std::system_error if a thread cannot be made. If the callback thread cannot
    /// be made, the process ends instead.
    std::unique_ptr<IOrvServiceRegistryClient> createOrvServiceRegistryClient(
        std::shared_ptr<utility::ILoggerFactory> loggerFactory, bool registerWithPrefix) override;

  private:
    OrvServiceRegistryContext& context_;
};

}  // namespace orvx::serviceregistryclient
