// A failure of the program itself. Entered by the test's thread and those of its servers; the
// programs are processes. No lock.
#include "AnnounceTest.h"
#include "Paths.h"

namespace orvx::announce {
namespace {

class AFailure : public AnnounceTest {
  protected:
    /// The program, in which a large allocation fails after SIGRTMIN.
    ChildProcess start(std::uint16_t registryPort, const Words& arguments) const {
        return {paths::kFailingAnnounceProgram,
                Words{"--registry", urlOf(registryPort), "--name", std::string(6000, 'x'), "--uri",
                      "/echo", "--port", std::to_string(service.port())} +
                    arguments};
    }
    /// The status contains the name of the service.
    static ChildProcess::Result failed(ChildProcess& announce) {
        announce.signal(SIGRTMIN);
        announce.signal(SIGUSR1);
        auto result = announce.wait();
        EXPECT_EQ(exitCode(result), 125);
        EXPECT_THAT(result.errors, HasSubstr("orvx-announce: std::bad_alloc\n"));
        return result;
    }
    /// A command that survives SIGTERM. The test ends when no process has its outputs open.
    static Words immortal() {
        return shell("trap '' TERM; printf '%s-now\\n' up; exec sleep 3600");
    }
};

TEST_F(AFailure, WithdrawsTheServicesAndEndsTheCommandThen) {
    auto announce = start(registry.port(), command({"3", urlOf(registry.port())}));
    announce.awaitErrors(" announced ");
    announce.awaitOutput("up\n");
    EXPECT_EQ(failed(announce).output, "up\ngot SIGTERM, entries: 0\n");
    EXPECT_THAT(entries(), IsEmpty());
}

TEST_F(AFailure, WithdrawsTheServicesWithoutACommand) {
    auto announce = start(registry.port(), {});
    announce.awaitOutput(" announced ");
    failed(announce);
    EXPECT_THAT(entries(), IsEmpty());
}

TEST_F(AFailure, EndsACommandThatIsNotReady) {
    service.stopListening();
    auto announce = start(registry.port(), command());
    announce.awaitOutput("up\n");
    EXPECT_EQ(failed(announce).output, "up\ngot SIGTERM\n");
}

TEST_F(AFailure, WaitsForNeitherTheRegistryNorTheCommandForEver) {
    holdBack("DELETE");
    auto announce = start(front.port(),
                          Words{"--withdraw-timeout", "0.1", "--stop-timeout", "0.1"} + immortal());
    announce.awaitErrors(" announced ");
    announce.awaitOutput("up-now");
    failed(announce);
}

}  // namespace
}  // namespace orvx::announce
