// Handles as the opaque words that cross the boundary, and back.
#pragma once

#include <cstdint>

inline void* HandleToWord(uint32_t handle) {
    return reinterpret_cast<void*>(static_cast<uintptr_t>(handle));
}

// 0, which is no handle, for a word that doesn't fit one.
inline uint32_t WordToHandle(const void* word) {
    const auto value = reinterpret_cast<uintptr_t>(word);
    const auto handle = static_cast<uint32_t>(value);
    return handle == value ? handle : 0;
}
