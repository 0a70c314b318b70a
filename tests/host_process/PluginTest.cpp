// A plug-in with a client is loaded, used and unloaded: nothing of it remains in the process.
// Threads: the test's, the client's, the registry's, and one of a look-up.

#include "DeadResolver.h"
#include "Descriptors.h"
#include "Paths.h"
#include "Process.h"
#include "RunningRegistry.h"
#include "plugin/Plugin.h"

#include <dlfcn.h>
#include <malloc.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <fstream>
#include <functional>
#include <iterator>
#include <stdexcept>
#include <string>
#include <thread>

namespace orvx::testing {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

class Plugin {
  public:
    Plugin() : library_(::dlopen(paths::kPlugin, RTLD_NOW | RTLD_LOCAL)) {
        if (library_ == nullptr) {
            throw std::runtime_error(::dlerror());
        }
    }
    ~Plugin() { ::dlclose(library_); }
    Plugin(const Plugin&) = delete;
    Plugin& operator=(const Plugin&) = delete;

    bool announce(std::uint16_t port) const { return find<decltype(::announce)>("announce")(port); }
    void announceAtHost(const char* host) const {
        find<decltype(::announceAtHost)>("announceAtHost")(host);
    }
    bool withdraw() const { return find<decltype(::withdraw)>("withdraw")(); }

  private:
    template <typename Function>
    Function* find(const char* name) const {
        return reinterpret_cast<Function*>(::dlsym(library_, name));
    }

    void* const library_;
};

std::string loaded() {
    std::ifstream maps("/proc/self/maps");
    return {std::istreambuf_iterator<char>(maps), {}};
}

std::size_t allocatedBytes() {
    return ::mallinfo2().uordblks;
}

/// Polls a condition that no event signals.
bool isSoon(const std::function<bool()>& condition) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!condition() && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::yield();
    }
    return condition();
}

class APlugin : public ::testing::Test {
  protected:
    /// Runs the plug-in from its loading to its unloading.
    void live() const {
        const Plugin plugin;
        EXPECT_TRUE(plugin.announce(registry_.port()));
        EXPECT_THAT(loaded(), HasSubstr(paths::kPlugin));
        EXPECT_TRUE(plugin.withdraw());
    }

    registry::RunningRegistry registry_;
};

TEST_F(APlugin, LeavesNothingInTheProcessThatUnloadsIt) {
    const auto threads = threadNames();
    const auto descriptors = openDescriptors();
    live();
    EXPECT_THAT(loaded(), Not(HasSubstr(paths::kPlugin)));
    EXPECT_EQ(threadNames(), threads);
    EXPECT_TRUE(isSoon([&] { return openDescriptors() == descriptors; })) << "the registry's, too";
}

TEST_F(APlugin, LetsTheMemoryOfTheProcessGrowNotHoweverOftenItIsLoaded) {
    for (int i = 0; i < 5; ++i) {
        live();
    }
    const auto before = allocatedBytes();
    for (int i = 0; i < 50; ++i) {
        live();
    }
    EXPECT_TRUE(isSoon([&] { return allocatedBytes() < before + 16 * 1024; }))
        << allocatedBytes() << " bytes, before " << before;
}

// The look-up's thread returns to code of the library.
TEST_F(APlugin, StaysLoadedIfItEndsWhileAHostIsStillLookedUp) {
    DeadResolver resolver;
    const auto threads = threadNames();
    {
        const Plugin plugin;
        EXPECT_TRUE(plugin.announce(registry_.port()));
        plugin.announceAtHost("registry.silent.test");
        EXPECT_TRUE(resolver.waitForLookups(1));
        EXPECT_TRUE(plugin.withdraw());
    }
    EXPECT_EQ(resolver.waiting(), 1U);
    EXPECT_THAT(loaded(), HasSubstr(paths::kLoadedLibrary));
    resolver.release();
    EXPECT_TRUE(isSoon([&] { return threadNames() == threads; }));
}

}  // namespace
}  // namespace orvx::testing
