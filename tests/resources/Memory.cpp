// The program's operator new, and OpenSSL's allocator. Entered by every thread; atomics only.
#include "Memory.h"

#include <openssl/crypto.h>
#include <pthread.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <new>

namespace orvx::testing {

namespace {

std::atomic<long> left{0};     // allocations until all succeed again; at zero all succeed
std::atomic<long> failing{0};  // the last `failing` of them fail
std::atomic<std::size_t> failed{0};
thread_local int countedIn = 0;
thread_local int exempt = 0;

bool isOfTheLibrary() {
    char name[16] = "";
    pthread_getname_np(pthread_self(), name, sizeof name);
    return std::strncmp(name, "ORVX_", 5) == 0;
}

bool mustFail() {
    if (left <= 0 || exempt > 0 || (countedIn == 0 && !isOfTheLibrary())) {
        return false;
    }
    const long before = left.fetch_sub(1);
    const bool fails = before > 0 && before <= failing;
    failed += fails ? 1 : 0;
    return fails;
}

void* opensslMalloc(std::size_t size, const char*, int) {
    return mustFail() ? nullptr : std::malloc(size);
}
void* opensslRealloc(void* block, std::size_t size, const char*, int) {
    return mustFail() ? nullptr : std::realloc(block, size);
}
void opensslFree(void* block, const char*, int) {
    std::free(block);
}

// Before the first use of OpenSSL, which accepts no other allocator afterwards.
const bool isSetUp = CRYPTO_set_mem_functions(opensslMalloc, opensslRealloc, opensslFree) == 1;

}  // namespace

void Memory::failAfter(std::size_t successes, std::size_t count) {
    failed = 0;
    failing = static_cast<long>(count);
    left = isSetUp ? static_cast<long>(successes + count) : 0;
}

std::size_t Memory::recover() {
    left = 0;
    return failed;
}

Memory::CountedIn::CountedIn() {
    ++countedIn;
}
Memory::CountedIn::~CountedIn() {
    --countedIn;
}
Memory::Exempt::Exempt() {
    ++exempt;
}
Memory::Exempt::~Exempt() {
    --exempt;
}

}  // namespace orvx::testing

void* operator new(std::size_t size) {
    void* const block = orvx::testing::mustFail() ? nullptr : std::malloc(size == 0 ? 1 : size);
    if (block == nullptr) {
        throw std::bad_alloc();
    }
    return block;
}

void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return orvx::testing::mustFail() ? nullptr : std::malloc(size == 0 ? 1 : size);
}

void operator delete(void* block) noexcept {
    std::free(block);
}

void operator delete(void* block, std::size_t) noexcept {
    std::free(block);
}
