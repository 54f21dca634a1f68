// Atomic operations on a plain 32-bit word. Each is a full memory barrier: nothing moves across it in either direction.
#pragma once

#include <atomic>
#include <cstdint>

// Returns the new value.
inline uint32_t AtomicIncrement(uint32_t* word) {
    return std::atomic_ref(*word).fetch_add(1) + 1;
}

// Returns the new value.
inline uint32_t AtomicDecrement(uint32_t* word) {
    return std::atomic_ref(*word).fetch_sub(1) - 1;
}

// Returns the old value.
inline uint32_t AtomicExchange(uint32_t* word, uint32_t value) {
    return std::atomic_ref(*word).exchange(value);
}

// The same for the pointer word of a counted pointer.
template <typename T>
T* AtomicExchange(std::atomic<T*>* word, T* value) {
    return word->exchange(value);
}
