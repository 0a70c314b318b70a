// The program orvx-announce: parses the options and runs the supervisor, or runs as a probe.
// The main thread does everything; the library starts its threads with the first announcement.
// There is no lock.

#include <fcntl.h>
#include <unistd.h>

#include <exception>
#include <iostream>

#include "ExitCodes.h"
#include "Probe.h"
#include "Supervisor.h"

namespace {

/// Opens closed standard streams, because their numbers would otherwise be given to sockets and
/// files, which would then receive the program's lines. They stay closed for the command.
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
    } catch (const EarlyExit& exit) {
        return exit.exitCode;
    } catch (const std::exception& error) {
        std::cerr << "orvx-announce: " << error.what() << std::endl;
        return kOwnFailure;
    }
}
