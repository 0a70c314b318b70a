// The home of the interface's virtual table, so that it exists once.
// No thread, no lock.

#include <orvx/communication/IClientHttpSession.h>

namespace orvx::communication {

IClientHttpSession::~IClientHttpSession() = default;

}  // namespace orvx::communication
