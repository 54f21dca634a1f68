// Counts heap allocations of the calling thread, by any code of the process, the loaded libraries included. Link
// AllocationCount.cpp, which takes the allocator's place in the program.
#pragma once

#include <cstddef>

class AllocationCount {
public:
    AllocationCount();
    size_t Count() const;

    // False where a sanitizer owns the allocator: counts stay 0.
    static bool Works();

private:
    size_t start;
};
