// The home of the interface's virtual table, so that it exists once.
// No thread, no lock.

#include <orvx/communication/IClientHttpFactory.h>

namespace orvx::communication {

IClientHttpFactory::~IClientHttpFactory() = default;

}  // namespace orvx::communication
