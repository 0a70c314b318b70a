// Defines the virtual destructor, so that the virtual table is emitted once.
// No state, no lock.

#include <orvx/communication/IClientHttpSession.h>

namespace orvx::communication {

IClientHttpSession::~IClientHttpSession() = default;

}  // namespace orvx::communication
