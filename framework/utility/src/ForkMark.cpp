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

/// The id of the process whose page it is, or 0. Null until this file is initialised. Never
/// unmapped: a thread may look at its mark while the process exits.
ProcessId* const known = makePage();

int currentProcess() noexcept {
    if (known == nullptr) {
        return ::getpid();
    }
    int id = known->load(std::memory_order_relaxed);
    if (id == 0) {
        id = ::getpid();
        known->store(id, std::memory_order_relaxed);
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
