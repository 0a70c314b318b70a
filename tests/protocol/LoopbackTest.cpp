// Ports that refuse connects, and ports that do not answer.
//
// Threads: the test's only.

#include "Loopback.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>

namespace orvx::testing {
namespace {

int connectError(const Socket& socket) {
    EXPECT_TRUE(waitForEvents(socket, POLLOUT, 10000));
    int error = 0;
    socklen_t size = sizeof error;
    ::getsockopt(socket.fd(), SOL_SOCKET, SO_ERROR, &error, &size);
    return error;
}

TEST(ARefusedPort, RefusesEveryConnect) {
    const RefusedPort refused;
    EXPECT_EQ(connectError(connectLoopback(refused.port())), ECONNREFUSED);
    EXPECT_EQ(connectError(connectLoopback(refused.port())), ECONNREFUSED);
}

TEST(ServersAtAFreePort, AreMadeAnewWhenThePortIsInUse) {
    static int made;
    made = 0;
    struct Servers {
        Servers() {
            if (++made < 3) {
                throw std::system_error(std::make_error_code(std::errc::address_in_use));
            }
        }
    };
    EXPECT_NE(atAFreePort<Servers>(), nullptr);
    EXPECT_EQ(made, 3);
}

TEST(ABlackHole, LeavesConnectsWithoutAnAnswer) {
    const BlackHole hole;
    const Socket first = connectLoopback(hole.port());
    const Socket second = connectLoopback(hole.port());
    EXPECT_FALSE(waitForEvents(first, POLLOUT, 300));
    EXPECT_FALSE(waitForEvents(second, POLLOUT, 0));
}

}  // namespace
}  // namespace orvx::testing
