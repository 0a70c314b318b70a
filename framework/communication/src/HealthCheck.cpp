// Counts consecutive requests without an answer, and decides which outcomes count.
// Entered by any thread; one atomic number, no lock.

#include <orvx/communication/HealthCheck.h>

namespace orvx::communication {

void HealthCheck::record(CommunicationStatus outcome) noexcept {
    switch (outcome) {
        case CommunicationStatus::Ok:
            failures_ = 0;
            break;
        case CommunicationStatus::Abandoned:
        case CommunicationStatus::InvalidRequest:
        case CommunicationStatus::NoSession:
            break;
        default:
            ++failures_;
    }
}

}  // namespace orvx::communication
