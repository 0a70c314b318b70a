// Plays random histories with faults on a client with resilience. See --help.
#include "Convergence.h"

using namespace orvx::simulation;

int main(int argc, char** argv) {
    return playHistories(argc, argv,
                         {"Plays random histories with faults on a client with resilience",
                          "the registry holds what was announced and not withdrawn",
                          convergence::historyOf, convergence::play});
}
