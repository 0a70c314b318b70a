#pragma once

#include <serviceregistryclient/IOrvServiceRegistryClientFactory.h>

#include <functional>
#include <memory>
#include <utility>

namespace orvx::serviceregistryclient {

/// A client factory that calls a function.
class FunctionFactory : public IOrvServiceRegistryClientFactory {
  public:
    using Create = std::function<std::unique_ptr<IOrvServiceRegistryClient>(
        std::shared_ptr<utility::ILoggerFactory>, bool)>;

    explicit FunctionFactory(Create create) : create_(std::move(create)) {}

    std::unique_ptr<IOrvServiceRegistryClient> createOrvServiceRegistryClient(
        std::shared_ptr<utility::ILoggerFactory> loggerFactory, bool registerWithPrefix) override {
        return create_(std::move(loggerFactory), registerWithPrefix);
    }

  private:
    Create create_;
};

}  // namespace orvx::serviceregistryclient
