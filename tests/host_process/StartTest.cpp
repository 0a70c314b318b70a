// The start of a client: inside a static object, before the static objects of the library could be
// initialised, and with its threads named. Threads: the test's, the client's three.

#include "Process.h"
#include "RecordingLogger.h"

#include <serviceregistryclient/OrvServiceRegistryContext.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace orvx::serviceregistryclient {
namespace {

using ::testing::IsSupersetOf;

struct EarlyClient {
    EarlyClient() {
        OrvServiceRegistryContext context;
        context.setLoggerFactory(std::make_shared<testing::RecordingLoggerFactory>());
        context.init();
        threads = testing::threadNames();
    }
    std::vector<std::string> threads;
};

// The objects of the program are linked, and initialised, before those of the library.
const EarlyClient early;

TEST(AStaticObject, GetsAClientWithItsThreadsNamedInFull) {
    EXPECT_THAT(early.threads, IsSupersetOf({"ORVX_HttpIO", "ORVX_SRCBExec", "ORVX_SRRExec"}));
}

// When init() returned, a thread still had the name of its creator in 323 of 500 runs.
TEST(AClient, HasItsThreadsNamedWhenItIsInitialised) {
    OrvServiceRegistryContext context;
    context.setLoggerFactory(std::make_shared<testing::RecordingLoggerFactory>());
    int misnamed = 0;
    for (int i = 0; i < 20; ++i) {
        context.init();
        const auto names = testing::threadNames();
        misnamed +=
            ::testing::Value(names, IsSupersetOf({"ORVX_HttpIO", "ORVX_SRCBExec", "ORVX_SRRExec"}))
                ? 0
                : 1;
        context.deinit();
    }
    EXPECT_EQ(misnamed, 0);
}

}  // namespace
}  // namespace orvx::serviceregistryclient
