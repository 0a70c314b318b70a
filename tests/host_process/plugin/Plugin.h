#pragma once

#include <orvx/utility/Export.h>

#include <cstdint>

// The functions of the plug-in, for one thread at a time.
extern "C" {

/// Starts a client, and announces a service with a blocking call at the registry at this port of
/// 127.0.0.1.
ORVX_EXPORT bool announce(std::uint16_t port);
/// Starts an announcement at a host with this name, and returns immediately. Call it after
/// announce().
ORVX_EXPORT void announceAtHost(const char* host);
/// Withdraws the service of announce(), and ends the client.
ORVX_EXPORT bool withdraw();
}
