// Stops at random moments in every phase of a request, while users' threads call operations and
// change the listener: they are quick, no callback runs afterwards, nothing is left, and a client
// that is started again works. ORVX_STRESS_REPEATS is the number of repetitions of each case (20),
// ORVX_STRESS_SEED the seed of the moments and the users' choices (a random number, which is
// printed).
//
// Threads: the test's, the users', the client's and the server's.

#include "Process.h"
#include "Scene.h"

#include <cstdlib>
#include <iostream>

namespace orvx::stress {
namespace {

using namespace std::chrono_literals;
using testing::BlackHole;
using testing::openDescriptors;
using testing::threadNames;

std::uint64_t number(const char* variable, std::uint64_t otherwise) {
    const char* const value = std::getenv(variable);
    return value == nullptr ? otherwise : std::stoull(value);
}

bool noneIsOurs() {
    const auto names = threadNames();
    return std::none_of(names.begin(), names.end(),
                        [](const std::string& name) { return name.rfind("ORVX_", 0) == 0; });
}

/// Answers no request.
Script silence(const Request& /*request*/) {
    return Script().silence();
}

class AStopAtARandomMoment : public ::testing::Test {
  protected:
    // A sanitizer starts a thread of its own with the first thread of the program, so one is
    // started before threads are counted.
    AStopAtARandomMoment() {
        std::thread([] {}).join();
    }

    /// Prepares the scene, starts it, and returns when the phase is reached.
    using Reach = std::function<void(Scene&)>;

    void repeat(const Reach& reach) {
        const std::uint64_t repeats = number("ORVX_STRESS_REPEATS", 20);
        const std::uint64_t seed = number("ORVX_STRESS_SEED", std::random_device()());
        std::cout << "ORVX_STRESS_SEED=" << seed << std::endl;
        const std::size_t descriptors = openDescriptors();
        const std::size_t threads = threadNames().size();
        for (std::uint64_t i = 0; i < repeats && !HasFailure(); ++i) {
            SCOPED_TRACE("seed " + std::to_string(seed) + ", round " + std::to_string(i));
            playOnce(seed + i, reach);
            const auto isAsBefore = [&] {
                return openDescriptors() == descriptors && threadNames().size() == threads;
            };
            EXPECT_TRUE(eventually(isAsBefore))
                << openDescriptors() << " descriptors, not " << descriptors << "; threads "
                << ::testing::PrintToString(threadNames());
        }
    }

    void playOnce(std::uint64_t seed, const Reach& reach) {
        Random random(seed);
        Scene scene(seed);
        reach(scene);
        const auto way = random() % 3;
        scene.startUsers();
        scene.passAMoment();
        if (way == 0) {  // only the client may be stopped while others use it
            scene.stopClient();
            scene.passAMoment();
            scene.endUsers();
            expectItWorks(scene, [&scene] { scene.client().init(); });
            scene.stopContext();
        } else if (way == 1) {
            scene.endUsers();
            scene.stopContext();
            expectItWorks(scene, [&scene] { scene.start(); });
            scene.stopContext();
        } else {
            scene.endUsers();
            scene.endContext();
        }
        expectPeace(scene);
    }

    void expectItWorks(Scene& scene, const std::function<void()>& init) {
        EXPECT_EQ(scene.ledger.afterStop(), 0U);
        if (scene.http.tls.enabled) {
            return;  // the server does not speak it
        }
        scene.startAgain();
        scene.server.onRequest(obey);
        init();
        scene.registered("again");
    }

    static void expectPeace(Scene& scene) {
        // The look-up's thread ends with the look-up.
        const bool isLookingUp = scene.resolver.has_value();
        scene.resolver.reset();
        EXPECT_TRUE(isLookingUp ? eventually(noneIsOurs) : noneIsOurs())
            << ::testing::PrintToString(threadNames());
        scene.server.release("end");
        EXPECT_TRUE(scene.server.waitFor([](const auto& now) { return now.open == 0; }));
        EXPECT_EQ(scene.ledger.afterStop(), 0U);
        EXPECT_EQ(scene.ledger.twice(), 0U);
        EXPECT_EQ(scene.ledger.onWrongThread(), 0U);
    }
};

TEST_F(AStopAtARandomMoment, LeavesNothingWhileRequestsWaitForAConnection) {
    repeat([](Scene& scene) {
        scene.server.onRequest(silence);
        scene.start();
        for (int i = 0; i < 20; ++i) {
            scene.registerService("lamp-" + std::to_string(i));
        }
        EXPECT_TRUE(scene.server.waitForRequests(4));
    });
}

TEST_F(AStopAtARandomMoment, LeavesNothingWhileANameIsLookedUp) {
    repeat([](Scene& scene) {
        scene.resolver.emplace();
        scene.start();
        scene.registerAt("registry.silent.test", scene.server.port(), Scene::service("lamp"));
        EXPECT_TRUE(scene.resolver->waitForLookups(1));
    });
}

TEST_F(AStopAtARandomMoment, LeavesNothingWhileAConnectionIsBeingMade) {
    const BlackHole hole;
    repeat([&hole](Scene& scene) {
        scene.start();
        scene.registerAt("127.0.0.1", hole.port(), Scene::service("lamp"));
        EXPECT_TRUE(eventually([&hole] { return testing::isConnecting(hole.port()); }));
    });
}

TEST_F(AStopAtARandomMoment, LeavesNothingDuringATlsHandshake) {
    repeat([](Scene& scene) {
        scene.server.everyConnection(Script().silence());
        scene.http.tls.enabled = true;
        scene.start();
        scene.registerService("lamp");
        EXPECT_TRUE(scene.server.waitForConnections(1));
    });
}

TEST_F(AStopAtARandomMoment, LeavesNothingWhileALargeRequestIsBeingSent) {
    const auto big = Scene::service("big");
    big->setDescription(std::string(3 << 20, 'x'));
    repeat([&big](Scene& scene) {
        scene.server.nextConnection(Script().readBytes(100).waitForRelease("end").silence());
        scene.start();
        scene.registerAt("127.0.0.1", scene.server.port(), big);
        EXPECT_TRUE(scene.server.waitForConnections(1));
    });
}

TEST_F(AStopAtARandomMoment, LeavesNothingWhileAnAnswerIsPending) {
    repeat([](Scene& scene) {
        scene.server.nextRequest(Script().silence());
        scene.start();
        scene.registerService("lamp");
        EXPECT_TRUE(scene.server.waitForRequests(1));
    });
}

TEST_F(AStopAtARandomMoment, LeavesNothingWhileAnAnswerArrives) {
    repeat([](Scene& scene) {
        scene.server.nextRequest(Script().drip(created("/" + std::string(500, 'x')), 1ms));
        scene.start();
        scene.registerService("lamp");
        EXPECT_TRUE(scene.server.waitForRequests(1));
    });
}

TEST_F(AStopAtARandomMoment, LeavesNothingBetweenRetries) {
    repeat([](Scene& scene) {
        scene.context->enableRetry(true);
        scene.server.onRequest([](const Request&) { return Script("HTTP/1.1 201").close(); });
        scene.start();
        scene.registerService("lamp");
        EXPECT_TRUE(scene.server.waitForRequests(3));
    });
}

TEST_F(AStopAtARandomMoment, LeavesNothingWhileACallbackRuns) {
    repeat([](Scene& scene) {
        scene.start();
        const auto isRunning = std::make_shared<std::promise<void>>();
        auto runs = isRunning->get_future();
        scene.registerAndThen("lamp", [&scene, isRunning] {
            isRunning->set_value();
            for (int i = 0; i < 50; ++i) {
                scene.registerService("inside-" + std::to_string(i))(scene.record());
            }
        });
        EXPECT_EQ(runs.wait_for(10s), std::future_status::ready);
    });
}

TEST_F(AStopAtARandomMoment, LeavesNothingWhileACheckIsPending) {
    repeat([](Scene& scene) {
        scene.context->enableCheck(true);
        scene.server.nextRequest(created("/uuid"));
        scene.server.nextRequest(Script().silence());
        scene.start();
        scene.registerService("lamp");
        EXPECT_TRUE(scene.server.waitForRequests(2));
    });
}

TEST_F(AStopAtARandomMoment, LeavesNothingDuringChecksWithoutAPause) {
    repeat([](Scene& scene) {
        scene.context->enableCheck(true);
        scene.context->setHeadTimeout(2ms);
        scene.start();
        for (int i = 0; i < 5; ++i) {
            scene.registerService("lamp-" + std::to_string(i));
        }
        // On a busy machine no HEAD may arrive: it times out before it is sent, which ends the
        // check.
        EXPECT_TRUE(scene.server.waitForRequests(5));
    });
}

TEST_F(AStopAtARandomMoment, LeavesNothingWhileALostServiceIsRegisteredAgain) {
    repeat([](Scene& scene) {
        scene.context->enableCheck(true);
        scene.server.nextRequest(created("/uuid"));
        scene.server.nextRequest(response(404));
        scene.server.nextRequest(Script().silence());
        scene.start();
        scene.registerService("lamp");
        EXPECT_TRUE(scene.server.waitForRequests(3));
    });
}

TEST_F(AStopAtARandomMoment, LeavesNothingWhileServicesAreLostAndRegisteredAgainWithoutAPause) {
    repeat([](Scene& scene) {
        scene.context->enableCheck(true);
        scene.server.onRequest([](const Request& request) {
            return request.method == "HEAD" ? Script(response(404)) : obey(request);
        });
        scene.start();
        for (int i = 0; i < 5; ++i) {
            scene.registerService("lamp-" + std::to_string(i));
        }
        EXPECT_TRUE(scene.server.waitForRequests(20));
    });
}

TEST_F(AStopAtARandomMoment, LeavesNothingWhileAWithdrawalIsPending) {
    repeat([](Scene& scene) {
        scene.start();
        const auto handle = scene.registered("lamp");
        scene.server.nextRequest(Script().silence());
        handle(scene.record());
        EXPECT_TRUE(scene.server.waitForRequests(2));
    });
}

TEST_F(AStopAtARandomMoment, LeavesNothingInACallbackWhileOthersUseTheClient) {
    repeat([](Scene& scene) {
        scene.start();
        const auto hasStopped = std::make_shared<std::promise<void>>();
        auto stopped = hasStopped->get_future();
        scene.startUsers();
        scene.registerAndThen("lamp", [&scene, hasStopped] {
            scene.stopClient();
            hasStopped->set_value();
        });
        EXPECT_EQ(stopped.wait_for(10s), std::future_status::ready);
    });
}

}  // namespace
}  // namespace orvx::stress
