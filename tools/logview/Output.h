// Buffered output to a file descriptor.
#pragma once

#include <string>
#include <string_view>

// After a failed write everything is dropped and Failed() is true.
class Output {
public:
    explicit Output(int fd) : fd(fd) { buffer.reserve(kBufferSize); }
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;
    ~Output() { Flush(); }

    void Append(std::string_view bytes);
    void Append(char byte) { Append({&byte, 1}); }
    bool Flush();  // false after a failure
    bool Failed() const { return failed; }

private:
    static constexpr size_t kBufferSize = 1 << 17;

    void Write(std::string_view bytes);

    const int fd;
    std::string buffer;
    bool failed = false;
};
