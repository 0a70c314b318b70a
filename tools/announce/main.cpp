// The program orvx-announce: reads its options and goes through its course.
// The main thread does everything; the library has threads of its own, from the first announcement
// on. There is no lock. A process of this program may be a probe instead.

#include <fcntl.h>
#include <unistd.h>

#include <exception>
#include <iostream>

#include "ExitCodes.h"
#include "Probe.h"
#include "Supervisor.h"

namespace {

/// Those that the starter has closed would become others, which lines would then go to. They stay
/// closed for the command.
void occupyStandardStreams() {
    int file = 0;
    do {
        file = ::open("/dev/null", O_RDWR | O_CLOEXEC);
    } while (file >= 0 && file <= STDERR_FILENO);
    ::close(file);
}

}  // namespace

int main(int argc, char** argv) {
    using namespace orvx::announce;
    if (const auto result = runAsProbe(argc, argv)) {
        return *result;
    }
    occupyStandardStreams();
    try {
        const Options options = parseOptions(argc, argv);
        return Supervisor(options).run();
    } catch (const Answered& answered) {
        return answered.exitCode;
    } catch (const std::exception& error) {
        std::cerr << "orvx-announce: " << error.what() << std::endl;
        return kOwnFailure;
    }
}
