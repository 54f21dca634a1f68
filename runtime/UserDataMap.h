// Turns weak pointers into 32-bit handles and back, for callbacks that carry one opaque word.
#pragma once

#include <cstdint>
#include <map>

#include "logging/Log.h"
#include "runtime/Atomic.h"
#include "runtime/KxMutex.h"
#include "runtime/RCObject.h"

// The last handle index given out, shared by all maps, so that a handle rarely means something in two of them.
inline constinit uint32_t gHandleCounter = 0;

// A map from handles to entries of type T, a WkPtr. Safe on any thread. Resolving a handle takes two steps, Find and
// then Lock() on the copy; an empty result of either means that the object is gone.
template <typename T>
class UserDataMap : public RCObject {
public:
    static constexpr uint32_t kHandleBase = 0xABCD0000;
    static constexpr uint32_t kHandleIndexMask = 0xFFF;

    // Adds a copy of entry and returns its handle, never 0. A map holds at most 4,096 entries; a full one adds nothing,
    // logs at ERROR and returns 0.
    uint32_t Add(const T& entry) EXCLUDES(lock) {
        {
            KxMutexGuard guard(lock);
            if (entries.size() <= kHandleIndexMask) {
                uint32_t handle;
                do {
                    handle = handleBase | (AtomicIncrement(&gHandleCounter) & kHandleIndexMask);
                } while (!entries.try_emplace(handle, entry).second);
                return handle;
            }
        }
        LOG(Error, "Handle map 0x%p is full with %u entries, nothing was added\n", static_cast<const void*>(this),
            kHandleIndexMask + 1);
        return 0;
    }

    // Returns a copy of the entry, or an empty entry for a handle that isn't in the map.
    T Find(uint32_t handle) EXCLUDES(lock) {
        KxMutexGuard guard(lock);
        const auto found = entries.find(handle);
        return found == entries.end() ? T() : found->second;
    }

    // Removes the entry, if it is there.
    void Erase(uint32_t handle) EXCLUDES(lock) {
        KxMutexGuard guard(lock);
        entries.erase(handle);
    }

private:
    std::map<uint32_t, T> entries GUARDED_BY(lock);
    const uint32_t handleBase = kHandleBase;
    KxMutex lock;  // guards entries
};
