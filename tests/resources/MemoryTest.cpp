// Memory that runs out at each allocation of the library's, once it has started: on its own
// threads, in libcurl, and in the calls of a user. Real threads and sockets.
#include "HostileServer.h"
#include "Memory.h"
#include "Recorder.h"
#include "RecordingLogger.h"

#include <serviceregistryclient/OrvServiceRegistryContext.h>

#include <orvx/common/XObject.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <iostream>
#include <memory>
#include <new>

namespace orvx::serviceregistryclient {
namespace {

using namespace std::chrono_literals;
using testing::HostileServer;
using testing::Memory;
using testing::Recorder;
using testing::Request;
using testing::response;
using testing::Script;

/// A registry that has lost the entry when it is first asked for it, and then takes its time.
class ForgetfulRegistry {
  public:
    ForgetfulRegistry() {
        server.onRequest([this](const Request& request) -> Script {
            if (request.method == "PUT") {
                ++puts_;
                return response(201, {{"Location", "/entries/1"}});
            }
            if (request.method == "DELETE") {
                return response(200);
            }
            if (puts_ < 2) {
                return response(404);
            }
            checked.add("checked");
            return Script().silence();
        });
    }

    Recorder checked;
    HostileServer server;

  private:
    std::atomic<int> puts_{0};
};

IOrvServiceRegistryClient::ResponseCallback record(Recorder& told) {
    return [&told](const OrvRegistrationResponse& response) {
        const Memory::Exempt exempt;
        told.add(OrvRegistrationResponse::statusString(response.status) + std::string("/") +
                 OrvRegistrationResponse::errorCodeString(response.errorCode));
    };
}
IOrvServiceRegistryClient::UnregisterHandle announce(OrvServiceRegistryContext& context,
                                                     std::uint16_t port, Recorder& told) {
    return context.getServiceRegistryClient()->registerServiceAtRegistry(
        common::ServiceInfo("registry", "127.0.0.1", port),
        std::make_shared<common::ServiceCreate>(
            std::make_unique<common::XObject>("", "a service with a long name", "")),
        record(told));
}
/// Again if it throws, after which nothing must have happened.
template <typename Call>
auto call(const Call& callOnce) {
    for (;;) {
        try {
            const Memory::CountedIn countedIn;
            return callOnce();
        } catch (const std::bad_alloc&) {
        }
    }
}

/// A service's life while these allocations fail; how many of them there were. Whatever fails,
/// each operation is answered once, and with success in the end.
std::size_t live(std::size_t successes, std::size_t failures) {
    ForgetfulRegistry registry;
    Recorder told;
    OrvServiceRegistryContext context;
    context.setLoggerFactory(std::make_shared<testing::RecordingLoggerFactory>());
    context.setRetryInterval(1ms);
    context.setCheckInterval(0s);
    context.setHeadTimeout(1min);
    context.init();

    Memory::failAfter(successes, failures);
    IOrvServiceRegistryClient::UnregisterHandle handle;
    std::string registered = "ERROR/OTHER";  // what could not be written down
    while (registered == "ERROR/OTHER") {
        handle = call([&] { return announce(context, registry.server.port(), told); });
        registered = told.next();
    }
    EXPECT_EQ(registered, "OK/NONE");
    EXPECT_EQ(registry.checked.next(), "checked");
    std::string withdrawn = "ERROR/SERVICE_REGISTRY_ERROR";  // what could not be sent
    while (withdrawn == "ERROR/SERVICE_REGISTRY_ERROR") {
        call([&] { handle(record(told)); });
        withdrawn = told.next();
    }
    EXPECT_EQ(withdrawn, "OK/NONE");
    const std::size_t failed = Memory::recover();

    call([&] { return announce(context, registry.server.port(), told); });
    EXPECT_EQ(told.next(), "OK/NONE") << "afterwards";
    context.deinit();
    EXPECT_EQ(told.rest(), Recorder::Lines());
    return failed;
}

TEST(AProcessOutOfMemory, LosesNothingWhicheverAllocationFails) {
    std::size_t n = 0;
    while (live(n, 1) > 0 && !::testing::Test::HasFailure()) {
        ++n;
    }
    EXPECT_GT(n, 100u) << "allocations";
    std::cout << "swept " << n << " allocations\n";
}

TEST(AProcessOutOfMemory, LosesNothingWhenSeveralAllocationsFailInARow) {
    for (std::size_t n = 0; live(n, 4) > 0 && !::testing::Test::HasFailure(); n += 3) {
    }
}

}  // namespace
}  // namespace orvx::serviceregistryclient
