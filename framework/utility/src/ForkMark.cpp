// Knows a forked child by its process id, of which the kernel is asked once in each process.
// Entered by any thread; no lock.

#include <orvx/utility/ForkMark.h>

#include <sys/mman.h>
#include <unistd.h>

#include <new>

namespace orvx::utility {

namespace {

using ProcessId = std::atomic<int>;

/// Whether the kernel clears the page in every child, however the child is made. An emulator that
/// accepts any advice has ignored this one.
bool isClearedInChildren(void* page) noexcept {
    constexpr int kNoAdvice = -1;
    return ::madvise(page, sizeof(ProcessId), kNoAdvice) != 0 &&
           ::madvise(page, sizeof(ProcessId), MADV_WIPEONFORK) == 0;
}

/// Null where there is no such page.
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

/// Stands for a page where there can be none.
ProcessId noPage{0};

/// The page, once somebody has made it. It holds the id of the process whose page it is, or 0.
/// Never unmapped: a thread may look at its mark while the process exits. No static of a function,
/// whose lock a child could find taken.
std::atomic<ProcessId*> known{nullptr};

ProcessId& page() noexcept {
    ProcessId* there = known.load(std::memory_order_acquire);
    if (there == nullptr) {
        ProcessId* const made = makePage();
        ProcessId* const mine = made == nullptr ? &noPage : made;
        if (known.compare_exchange_strong(there, mine, std::memory_order_acq_rel)) {
            return *mine;
        }
        if (made != nullptr) {
            ::munmap(made, sizeof(ProcessId));
        }
    }
    return *there;
}

int currentProcess() noexcept {
    ProcessId& kept = page();
    int id = kept.load(std::memory_order_relaxed);
    if (id == 0) {
        id = ::getpid();
        if (&kept != &noPage) {
            kept.store(id, std::memory_order_relaxed);
        }
    }
    return id;
}

}  // namespace

ForkMark::ForkMark() : process_(currentProcess()) {}

void ForkMark::set() {
    process_ = currentProcess();
}

bool ForkMark::isLeftBehind() const noexcept {
    return process_ != currentProcess();
}

}  // namespace orvx::utility
