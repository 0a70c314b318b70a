// A process whose standard error is a full pipe without a reader. Threads: the test's, one that
// uses the client, the client's three, the console's, the registry's.

#include "IntegrationTest.h"

#include <fcntl.h>
#include <unistd.h>

#include <future>

namespace orvx::serviceregistryclient {
namespace {

/// Standard error is a full pipe while the object lives.
class FullPipe {
  public:
    FullPipe() : before_(::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3)) {
        int ends[2];
        EXPECT_EQ(::pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
        reading_ = ends[0];
        const std::string bytes(4096, '.');
        while (::write(ends[1], bytes.data(), bytes.size()) > 0) {
        }
        ::fcntl(ends[1], F_SETFL, 0);
        ::dup2(ends[1], STDERR_FILENO);
        ::close(ends[1]);
    }
    ~FullPipe() {
        ::dup2(before_, STDERR_FILENO);
        ::close(before_);
        ::close(reading_);
    }
    FullPipe(const FullPipe&) = delete;
    FullPipe& operator=(const FullPipe&) = delete;

    /// Reads the pipe until it is empty.
    void drain() const {
        char bytes[4096];
        while (::read(reading_, bytes, sizeof bytes) > 0) {
        }
    }

  private:
    const int before_;
    int reading_ = -1;
};

class AFullPipe : public IntegrationTest {};

// The client's threads waited in the console logger, one of them with the client's lock.
TEST_F(AFullPipe, KeepsNoCallFromReturningAndNoClientFromItsEnd) {
    const testing::RefusedPort nobody;
    const FullPipe standardError;
    context.setLoggerFactory(nullptr);
    context.setRetryInterval(1ms);
    context.enableCheck(false);
    auto life = std::async(std::launch::async, [&] {
        start();
        for (int i = 0; i < 20; ++i) {
            client().registerServiceAtRegistry(at(nobody.port()), service("door"), nullptr);
        }
        client().registerServiceAtRegistry(at(registry.port()), service("lamp"), record());
        EXPECT_THAT(outcomes.await(1), ::testing::ElementsAre("OK/NONE"));
        context.deinit();
        context.setLoggerFactory(nullptr);  // the console ends, and stops waiting for its reader
    });
    const bool isOver = life.wait_for(20s) == std::future_status::ready;
    EXPECT_TRUE(isOver);
    while (life.wait_for(10ms) != std::future_status::ready) {
        standardError.drain();
    }
}

}  // namespace
}  // namespace orvx::serviceregistryclient
