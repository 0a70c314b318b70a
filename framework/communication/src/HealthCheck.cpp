// Counts the requests in a row that stayed without an answer.
// Entered by any thread; one atomic number, no lock.

#include <orvx/communication/HealthCheck.h>

namespace orvx::communication {

void HealthCheck::record(bool answered) noexcept {
    if (answered) {
        failures_ = 0;
    } else {
        ++failures_;
    }
}

}  // namespace orvx::communication
