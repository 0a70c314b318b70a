// Occupies the numbers of closed standard streams. Runs before there are threads; there is no lock.

#include "StandardStreams.h"

#include <fcntl.h>
#include <unistd.h>

namespace orvx::tools {

void occupyStandardStreams() {
    int file = 0;
    do {
        // Only for reading: a write fails, as it does with a closed stream.
        file = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    } while (file >= 0 && file <= STDERR_FILENO);
    if (file >= 0) {
        ::close(file);
    }
}

}  // namespace orvx::tools
