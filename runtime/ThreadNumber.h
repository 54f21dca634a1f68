// The process-wide number of a thread. Log lines print it as 0x%08llX.
#pragma once

#include "runtime/Types.h"

// The calling thread's number, 0 while it has none. Its address also identifies the thread to locks that can't afford a
// call. It lives in the static block of thread storage, which costs one addition to reach; at 8 bytes it fits the
// reserve that the loader keeps there for libraries that are loaded late.
[[gnu::tls_model("initial-exec")]] extern constinit thread_local uint64 gThreadNumber;

// Gives the calling thread the next number of the process.
void AssignThreadNumber();

// Returns the calling thread's number, never 0, assigning one on the first call. A number is unique in the process, and
// nearly so among processes: the process number, getpid() & 0xFFFF, is worked into it.
inline uint64 GetThreadNumber() {
    if (gThreadNumber == 0) [[unlikely]] {
        AssignThreadNumber();
    }
    return gThreadNumber;
}

inline bool IsThreadNumberCurrent(uint64 number) {
    return number == GetThreadNumber();
}
