// Replaces the C library's getaddrinfo() in the test program: it does not answer for some names,
// knows no address for others, and forwards all other calls.
//
// Threads: any thread may look up a name, including threads of other libraries. The state is
// guarded by its mutex and is never destroyed, because such a thread may outlive main().

#include "DeadResolver.h"

#include <dlfcn.h>
#include <netdb.h>
#include <orvx/utility/Mutex.h>

#include <condition_variable>
#include <string_view>
#include <vector>

namespace orvx::testing {
namespace {

using Clock = std::chrono::steady_clock;
using utility::Mutex;
using utility::MutexLock;

struct State {
    Mutex mutex;
    std::condition_variable changed;
    bool silent ORVX_GUARDED_BY(mutex) = false;
    std::chrono::seconds atMost ORVX_GUARDED_BY(mutex){0};
    std::vector<std::string> lookups ORVX_GUARDED_BY(mutex);
    std::size_t waiting ORVX_GUARDED_BY(mutex) = 0;
};

State& state() {
    static State* const state = new State;
    return *state;
}

bool endsWith(std::string_view text, std::string_view ending) {
    return text.size() >= ending.size() && text.substr(text.size() - ending.size()) == ending;
}

int lookUpUnknown(std::string_view name) {
    State& s = state();
    MutexLock lock(s.mutex);
    s.lookups.emplace_back(name);
    s.changed.notify_all();
    return EAI_NONAME;
}

auto* next() {
    static const auto function =
        reinterpret_cast<decltype(&::getaddrinfo)>(::dlsym(RTLD_NEXT, "getaddrinfo"));
    return function;
}

/// Resolves to these addresses, in this order.
int lookUpFixed(std::string_view name, const std::vector<const char*>& addresses,
                const addrinfo* hints, addrinfo** result) {
    State& s = state();
    {
        MutexLock lock(s.mutex);
        s.lookups.emplace_back(name);
        s.changed.notify_all();
    }
    for (const char* const address : addresses) {
        const int error = next()(address, nullptr, hints, result);
        if (error != 0) {
            return error;
        }
        result = &(*result)->ai_next;
    }
    return 0;
}

int lookUpSilent(std::string_view name) {
    State& s = state();
    MutexLock lock(s.mutex);
    s.lookups.emplace_back(name);
    ++s.waiting;
    s.changed.notify_all();
    const auto deadline = Clock::now() + s.atMost;
    while (s.silent && Clock::now() < deadline) {
        s.changed.wait_until(lock.native(), deadline);
    }
    --s.waiting;
    s.changed.notify_all();
    return EAI_AGAIN;
}

}  // namespace

DeadResolver::DeadResolver(std::chrono::seconds atMost) {
    State& s = state();
    MutexLock lock(s.mutex);
    s.silent = true;
    s.atMost = atMost;
    s.lookups.clear();
}

DeadResolver::~DeadResolver() {
    release();
}

void DeadResolver::release() {
    State& s = state();
    MutexLock lock(s.mutex);
    s.silent = false;
    s.changed.notify_all();
    while (s.waiting != 0) {
        s.changed.wait(lock.native());
    }
}

std::vector<std::string> DeadResolver::lookups() const {
    State& s = state();
    MutexLock lock(s.mutex);
    return s.lookups;
}

std::size_t DeadResolver::waiting() const {
    State& s = state();
    MutexLock lock(s.mutex);
    return s.waiting;
}

bool DeadResolver::waitForLookups(std::size_t count, std::chrono::milliseconds timeout) const {
    State& s = state();
    const auto deadline = Clock::now() + timeout;
    MutexLock lock(s.mutex);
    while (s.lookups.size() < count) {
        if (s.changed.wait_until(lock.native(), deadline) == std::cv_status::timeout) {
            return s.lookups.size() >= count;
        }
    }
    return true;
}

}  // namespace orvx::testing

// Exported, because other libraries would otherwise use the C library's function.
extern "C" __attribute__((visibility("default"))) int getaddrinfo(const char* node,
                                                                  const char* service,
                                                                  const addrinfo* hints,
                                                                  addrinfo** result) {
    using namespace orvx::testing;
    std::string_view name = node == nullptr ? "" : node;
    if (endsWith(name, ".test.")) {
        name.remove_suffix(1);
    }
    if (endsWith(name, ".silent.test")) {
        return lookUpSilent(name);
    }
    if (endsWith(name, ".unknown.test")) {
        return lookUpUnknown(name);
    }
    if (endsWith(name, ".both.test")) {
        return lookUpFixed(name, {"::1", "127.0.0.1"}, hints, result);
    }
    if (endsWith(name, ".crowd.test")) {
        std::vector<const char*> addresses(99, "127.0.0.2");
        addresses.push_back("127.0.0.1");
        return lookUpFixed(name, addresses, hints, result);
    }
    if (endsWith(name, ".several.test")) {
        return lookUpFixed(name, {"127.0.0.2", "127.0.0.1", "::1"}, hints, result);
    }
    if (endsWith(name, ".replicas.test")) {
        return lookUpFixed(name, {"127.0.0.1", "127.0.0.2", "127.0.0.3"}, hints, result);
    }
    return next()(node, service, hints, result);
}
