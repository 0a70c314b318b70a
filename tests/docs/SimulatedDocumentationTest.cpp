// The C++ in the how-to about testing compiles, and holds in a simulated world.
#include "Snippets.h"

namespace orvx::docs {
namespace {

TEST(TheHowToAboutTesting, HasExamplesThatHold) {
    ASSERT_EQ(snippets.size(), 3U);
    for (const auto snippet : snippets) {
        Reader reader;
        snippet(reader);
    }
}

}  // namespace
}  // namespace orvx::docs
