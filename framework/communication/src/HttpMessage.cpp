// The home of the interface's virtual table, so that it exists once.
// No thread, no lock.

#include <orvx/communication/HttpMessage.h>

namespace orvx::communication {

HttpMessage::~HttpMessage() = default;

}  // namespace orvx::communication
