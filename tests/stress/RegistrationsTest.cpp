// The list of registrations, which any thread may read at any moment of the context's life.
// Threads: the test's, one that reads, the client's and the server's. The thread sanitizer reports
// what they access without a lock.

#include "ProtocolTest.h"

#include <atomic>
#include <thread>

namespace orvx::stress {
namespace {

using serviceregistryclient::obey;
using serviceregistryclient::OrvServiceRegistryContext;

TEST(TheRegistrations, MayBeReadWhileTheClientStartsAndStops) {
    constexpr int kRounds = 200;
    testing::HostileServer server;
    server.onRequest(obey);
    OrvServiceRegistryContext context;
    context.setLoggerFactory(std::make_shared<testing::RecordingLoggerFactory>());
    std::atomic<bool> isOver{false};
    std::thread reader([&] {
        while (!isOver) {
            context.getRegistrations();
        }
    });
    for (int i = 0; i < kRounds; ++i) {
        context.init();
        context.getServiceRegistryClient()->registerServiceAtRegistry(
            {"registry", "127.0.0.1", server.port()},
            std::make_shared<common::ServiceCreate>(
                std::make_unique<common::XObject>("", "lamp", "")),
            {});
        EXPECT_EQ(context.getRegistrations().size(), 1U);
        context.deinit();
        EXPECT_TRUE(context.getRegistrations().empty());
    }
    isOver = true;
    reader.join();
}

}  // namespace
}  // namespace orvx::stress
