#pragma once

#include "Eventually.h"
#include "HostileServer.h"
#include "RunningRegistry.h"

#include <serviceregistryclient/IOrvServiceRegistryClient.h>

#include <nlohmann/json_fwd.hpp>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace orvx::serviceregistryclient {

using testing::eventually;

/// "OK/NONE", "ERROR/TIMEOUT" and so on.
std::string text(const OrvRegistrationResponse& outcome);

/// The outcome of an asynchronous operation, such as a handle. Throws when none comes within ten
/// seconds.
std::string outcomeOf(
    const std::function<void(IOrvServiceRegistryClient::ResponseCallback)>& operation);

std::shared_ptr<common::ServiceCreate> service(const std::string& name);
/// Services named `name0`, `name1` and so on.
IOrvServiceRegistryClient::ServiceSet services(const std::string& name, int count);

/// The list of the registry at that port.
nlohmann::json entriesAt(std::uint16_t port);

/// What the registry at that port answers to a request that a server in front of it has got. Throws
/// when it answers nothing.
std::string passOn(const testing::Request& request, std::uint16_t port);

}  // namespace orvx::serviceregistryclient
