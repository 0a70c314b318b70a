// Plays random histories on the client and on a model of its rules. See --help.
#include "History.h"

using namespace orvx::simulation;

int main(int argc, char** argv) {
    return playHistories(argc, argv,
                         {"Plays random histories on the client and on a model of its rules",
                          "the client and the model agree", historyOf,
                          [](std::uint64_t seed, const History& history) {
                              return play(optionsOf(seed), history);
                          }});
}
