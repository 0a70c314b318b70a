// The C++ in the how-to about testing compiles as it stands, and holds in a simulated world.
#include "Programs.h"

#include <gtest/gtest.h>

unsigned short portOfTheRegistry = 8500;  // any will do there

TEST(TheHowToAboutTesting, HasExamplesThatHold) {
    ASSERT_EQ(howto_testing.size(), 3U);
    for (const auto program : howto_testing) {
        program();
    }
}
