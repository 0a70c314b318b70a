#pragma once

namespace orvx::announce {

/// The address family of connections.
enum class Via { Internet, UnixSocket };

/// Whether this process has made a stream connection that is established, although nothing may have
/// been sent over it. Connections that the process has inherited do not count. Also true if the
/// descriptors cannot be listed.
/// Thread-safety: may be called from any thread.
bool mayBeConnected(Via via);

}  // namespace orvx::announce
