// A file open for reading.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <string>
#include <utility>

class FileHandle {
public:
    FileHandle() = default;
    explicit FileHandle(const std::string& path) : fd(open(path.c_str(), O_RDONLY | O_CLOEXEC)) {}
    FileHandle(FileHandle&& other) noexcept : fd(std::exchange(other.fd, -1)) {}
    FileHandle& operator=(FileHandle&& other) noexcept {
        std::swap(fd, other.fd);
        return *this;
    }
    ~FileHandle() {
        if (fd >= 0) close(fd);
    }

    // -1 if it could not be opened.
    int Fd() const { return fd; }
    explicit operator bool() const { return fd >= 0; }

private:
    int fd = -1;
};
