// The program orvx-announce: reads its options and goes through its course.
// The main thread does everything; the library has threads of its own, from the first announcement
// on. There is no lock.

#include <exception>
#include <iostream>

#include "ExitCodes.h"
#include "Supervisor.h"

int main(int argc, char** argv) {
    using namespace orvx::announce;
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
