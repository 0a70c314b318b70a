// A part of a second orvx-announce: after SIGRTMIN the next large allocation of its main thread
// fails, as if memory had run out. Entered by every thread; one atomic only.

#include <sys/types.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <new>

namespace {

constexpr std::size_t kLarge = 5'000;
std::atomic<bool> mustFail{false};

__attribute__((constructor)) void awaitSignal() {
    std::signal(SIGRTMIN, [](int) { mustFail = true; });
}

}  // namespace

void* operator new(std::size_t size) {
    if (size >= kLarge && mustFail && ::gettid() == ::getpid() && mustFail.exchange(false)) {
        throw std::bad_alloc();
    }
    if (void* const block = std::malloc(size == 0 ? 1 : size)) {
        return block;
    }
    throw std::bad_alloc();
}

void operator delete(void* block) noexcept {
    std::free(block);
}

void operator delete(void* block, std::size_t) noexcept {
    std::free(block);
}
