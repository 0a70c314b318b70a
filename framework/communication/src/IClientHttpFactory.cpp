// Defines the virtual destructor, so that the virtual table is emitted once.
// No state, no lock.

#include <orvx/communication/IClientHttpFactory.h>

namespace orvx::communication {

IClientHttpFactory::~IClientHttpFactory() = default;

}  // namespace orvx::communication
