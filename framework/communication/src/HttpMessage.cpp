// Defines the virtual destructor, so that the virtual table is emitted once.
// No state, no lock.

#include <orvx/communication/HttpMessage.h>

namespace orvx::communication {

HttpMessage::~HttpMessage() = default;

}  // namespace orvx::communication
