// Text forms shared by the whole system: formatting with a limit, durations, sizes, time stamps, short function names
// and hex dumps. The output forms reach the log files. All functions hold no state and are safe on any thread.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <string>

namespace StringUtils {

// printf formatting, cut to 10,239 bytes; an encoding failure gives an empty text.
std::string Format(const char* format, ...) __attribute__((format(printf, 1, 2)));
std::string FormatV(const char* format, va_list args) __attribute__((format(printf, 1, 0)));

// printf formatting into dst, which always ends with a 0 byte if size is above 0. Returns the number of bytes stored
// before it: size - 1 when cut, 0 on a format failure.
int Snprintf(char* dst, int size, const char* format, ...) __attribute__((format(printf, 3, 4)));
int SnprintfV(char* dst, int size, const char* format, va_list args) __attribute__((format(printf, 3, 0)));

// Copies at most maxChars bytes of src plus a 0 byte into dst, which has room for maxChars + 1, and returns the number
// copied. A null src counts as an empty text.
int CopyString(char* dst, const char* src, int maxChars);

// The text without isspace characters at both ends.
std::string Trim(const std::string& text);

// "1.500s", "250ms", "0:01:30.250", "2 days 0:00:00.000": the shortest form that keeps digits decimals, of which at
// most 32 count. digits of 0 or less rounds to whole seconds, otherwise the fraction is truncated. A negative duration
// is the positive one behind a "-".
std::string FormatDuration(double seconds, int digits);

// "999B", "0.98KB": from 1,000 bytes up in steps of 1,024, with digits decimals, up to "PB".
std::string FormatBytes(double bytes, unsigned digits);

// The wall clock as "YYYY-MM-DD HH:MM:SS.mmm" in local time, or "YYYY-MM-DDTHH:MM:SS.mmmZ" if utc. Returns the stored
// length, cut to size - 1; 0 with a null dst, a size below 1, or if the clock can't be read.
int FormatTimestamp(char* dst, int size, bool utc);
std::string GetTimestamp(bool utc);

// The local time zone as "CET (UTC +0100)"; an empty text if the time can't be read.
std::wstring GetTimeZoneText();

// Shortens a full signature text to the name with "()": "bool KxMutex::Acquire(DWORD)" gives "KxMutex::Acquire()".
// A text that begins with "@" is a ready name: the result points behind the "@" into signature, and buf is left alone.
// Otherwise the result is buf, with at most size - 2 characters of name and bracket taken.
const char* GetFunctionName(const char* signature, char* buf, unsigned size);
std::string GetFunctionName(const char* signature);

// Writes data as lines of offset, bytes in hexadecimal and the printable text, each behind indent blanks:
//     0x0010: 41 42 43  ABC
// All lines are equally long: the last one is filled up with blanks. At most 65,535 bytes are dumped. bytesPerLine of 0
// or less means 16. A negative indent means its absolute value, with the first line not indented.
//
// Returns the length written, without the 0 byte that ends it. With a null dst or a size of 0 returns the length of the
// whole dump, so that size has to be one more. Lines that don't fit give way to the line "BUFFER TOO SMALL". Without
// data, or with length below 1, dst is emptied and the result is 0.
unsigned HexDump(char* dst, unsigned size, const void* data, int length, int bytesPerLine, int indent);

}  // namespace StringUtils

// The log level named (always, error, warn, info, debug, trace, verbose, never), without regard to case. An unknown or
// null name gives defaultLevel, or 3 (info) if that is above 7.
int LogLevelFromName(const char* name, unsigned defaultLevel);

// Converts src from the multi-byte form of the current locale. The result is allocated with malloc and belongs to the
// caller; length, which may be null, receives its number of characters. Returns null, after an error line, if src is
// null or not a valid text, or memory ran out.
wchar_t* MultiByteToWideStr(const char* src, size_t* length);
