// printf formatting for the usual case, at a fraction of the library's cost.
#pragma once

#include <cstdarg>
#include <cstddef>

// Writes what vsnprintf would write, zero byte included, and returns its length without that. Knows the conversions
// d i u x X c s p and %%, the lengths h hh l ll z j t, zero padding and a width for numbers. Returns -1, with dst in
// any state, for all else and for a text that doesn't fit: then the library has to do it.
int FastFormat(char* dst, size_t size, const char* format, va_list args) __attribute__((format(printf, 3, 0)));
