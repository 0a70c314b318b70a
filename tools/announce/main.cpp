// The program orvx-announce: parses the options and runs the supervisor, or runs as a probe.
// The main thread does everything; the library starts its threads with the first announcement, and
// before for a moment, to check the options.
// There is no lock.

#include <exception>
#include <iostream>

#include "ExitCodes.h"
#include "HttpSettings.h"
#include "Probe.h"
#include "StandardStreams.h"
#include "Supervisor.h"

int main(int argc, char** argv) {
    using namespace orvx::announce;
    if (const auto result = runAsProbe(argc, argv)) {
        return *result;
    }
    orvx::tools::occupyStandardStreams();
    try {
        const Options options = parseOptions(argc, argv);
        checkHttpConfig(options.registry);
        return Supervisor(options).run();
    } catch (const EarlyExit& exit) {
        return exit.exitCode;
    } catch (const std::exception& error) {
        std::cerr << "orvx-announce: " << error.what() << std::endl;
        return kOwnFailure;
    }
}
