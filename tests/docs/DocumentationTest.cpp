// The C++ in the documentation compiles as it stands, and runs against a real registry.
#include "Programs.h"
#include "RunningRegistry.h"

#include <orvx/utility/OrvFoundationException.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

unsigned short portOfTheRegistry = 0;

namespace {

using orvx::registry::RunningRegistry;

class TheDocumentation : public ::testing::TestWithParam<const Programs*> {};

TEST_P(TheDocumentation, HasProgramsThatRun) {
    for (const auto program : *GetParam()) {
        RunningRegistry registry;
        portOfTheRegistry = registry.port();
        try {
            program();
        } catch (const orvx::utility::OrvFoundationException& error) {
            EXPECT_THAT(error.what(), ::testing::HasSubstr("/etc/orvx/"))
                << "only the certificates that the page names may be missing here";
        }
    }
}

INSTANTIATE_TEST_SUITE_P(, TheDocumentation,
                         ::testing::Values(&guide, &howto_replicas, &howto_tls));

}  // namespace
