// The C++ in the documentation compiles, and runs against a real registry.
#include "Snippets.h"

#include "RunningRegistry.h"

#include <gtest/gtest.h>

namespace orvx::docs {
namespace {

TEST(TheDocumentation, HasExamplesThatRun) {
    ASSERT_GE(snippets.size(), 6U);
    for (const auto snippet : snippets) {
        registry::RunningRegistry running;
        Reader reader(running.port());
        snippet(reader);
    }
}

}  // namespace
}  // namespace orvx::docs
