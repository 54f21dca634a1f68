// The plain words that every floor uses: the truth value and unsigned word of the boundary, 64-bit integers, time-outs.
#pragma once

#include <cstdint>

using Bool = int32_t;  // truth value at the boundary; bool inside
inline constexpr Bool TRUE = 1;
inline constexpr Bool FALSE = 0;

using DWORD = uint32_t;
using int64 = int64_t;
using uint64 = uint64_t;

inline constexpr DWORD kInfinite = 0xFFFFFFFF;  // a time-out in milliseconds: no limit
