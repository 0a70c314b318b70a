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

/// The outcome as a text, for example "OK/NONE" or "ERROR/TIMEOUT".
std::string text(const OrvRegistrationResponse& outcome);

/// The outcome of an asynchronous operation, such as a handle. Throws if none comes within ten
/// seconds.
std::string outcomeOf(
    const std::function<void(IOrvServiceRegistryClient::ResponseCallback)>& operation);

std::shared_ptr<common::ServiceCreate> service(const std::string& name);
/// Services named `name0`, `name1` and so on.
IOrvServiceRegistryClient::ServiceSet services(const std::string& name, int count);

/// The list of the registry at this port.
nlohmann::json entriesAt(std::uint16_t port);

/// Forwards a request that a server in front has received to the registry at this port. Returns the
/// answer. Throws if there is none.
std::string passOn(const testing::Request& request, std::uint16_t port);

}  // namespace orvx::serviceregistryclient
