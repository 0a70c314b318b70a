// Recognises a forked child by its process id. The id is cached once in each process.
// Entered by any thread; no lock.

#include <orvx/utility/ForkMark.h>

#include <sys/mman.h>
#include <unistd.h>

#include <new>

namespace orvx::utility {

namespace {

using ProcessId = std::atomic<int>;

/// Whether the kernel clears the page in every child, however the child is made. An emulator that
/// accepts any advice ignores this one, too.
bool isClearedInChildren(void* page) noexcept {
    constexpr int kNoAdvice = -1;
    return ::madvise(page, sizeof(ProcessId), kNoAdvice) != 0 &&
           ::madvise(page, sizeof(ProcessId), MADV_WIPEONFORK) == 0;
}

/// Null if the kernel offers no such page.
ProcessId* makePage() noexcept {
    void* const page = ::mmap(nullptr, sizeof(ProcessId), PROT_READ | PROT_WRITE,
                              MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (page == MAP_FAILED) {
        return nullptr;
    }
    if (!isClearedInChildren(page)) {
        ::munmap(page, sizeof(ProcessId));
        return nullptr;
    }
    return new (page) ProcessId(0);
}

/// Replaces the page if the kernel offers none.
ProcessId idWithoutPage{0};

/// The page, once it is made. It holds the id of the current process, or 0. Never unmapped: a
/// thread may use its mark while the process exits. Not a function's static object, whose guard
/// could stay locked in a forked child.
std::atomic<ProcessId*> cachedPage{nullptr};

ProcessId& page() noexcept {
    ProcessId* existing = cachedPage.load(std::memory_order_acquire);
    if (existing == nullptr) {
        ProcessId* const made = makePage();
        ProcessId* const mine = made == nullptr ? &idWithoutPage : made;
        if (cachedPage.compare_exchange_strong(existing, mine, std::memory_order_acq_rel)) {
            return *mine;
        }
        if (made != nullptr) {
            ::munmap(made, sizeof(ProcessId));
        }
    }
    return *existing;
}

int currentProcess() noexcept {
    ProcessId& cached = page();
    int id = cached.load(std::memory_order_relaxed);
    if (id == 0) {
        id = ::getpid();
        if (&cached != &idWithoutPage) {
            cached.store(id, std::memory_order_relaxed);
        }
    }
    return id;
}

}  // namespace

ForkMark::ForkMark() : process_(currentProcess()) {}

void ForkMark::set() {
    process_ = currentProcess();
}

bool ForkMark::isInForkedChild() const noexcept {
    return process_ != currentProcess();
}

}  // namespace orvx::utility
