#pragma once

#include <orvx/utility/Export.h>

#include <cstdint>

// What the plug-in offers. One thread at a time.
extern "C" {

/// Starts a client and announces a service at the registry at that port of 127.0.0.1, in the
/// blocking form.
ORVX_EXPORT bool announce(std::uint16_t port);
/// Starts an announcement at a host of that name, and returns at once. After announce().
ORVX_EXPORT void announceAtHost(const char* host);
/// Withdraws what announce() announced, and ends the client.
ORVX_EXPORT bool withdraw();
}
