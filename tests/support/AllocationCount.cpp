#include "tests/support/AllocationCount.h"

#include <cerrno>
#include <cstdlib>

namespace {
thread_local size_t allocations = 0;
}

AllocationCount::AllocationCount() : start(allocations) {}
size_t AllocationCount::Count() const {
    return allocations - start;
}

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)

bool AllocationCount::Works() {
    return false;
}

#else

bool AllocationCount::Works() {
    return true;
}

extern "C" {

void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* block, size_t size);
void* __libc_memalign(size_t alignment, size_t size);

void* malloc(size_t size) {
    ++allocations;
    return __libc_malloc(size);
}

void* calloc(size_t count, size_t size) {
    ++allocations;
    return __libc_calloc(count, size);
}

void* realloc(void* block, size_t size) {
    ++allocations;
    return __libc_realloc(block, size);
}

void* aligned_alloc(size_t alignment, size_t size) {
    ++allocations;
    return __libc_memalign(alignment, size);
}

int posix_memalign(void** block, size_t alignment, size_t size) {
    ++allocations;
    *block = __libc_memalign(alignment, size);
    return *block ? 0 : ENOMEM;
}

}  // extern "C"

#endif
