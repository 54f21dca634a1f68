#include "tools/logview/LogFollower.h"

#include <sys/stat.h>

#include <algorithm>
#include <optional>
#include <utility>

#include "tools/logview/LogFiles.h"

namespace {

constexpr size_t kReadSize = 1 << 18;

}  // namespace

LogFollower::LogFollower(std::string path, const RecordFilter& filter, RecordSink& sink, const std::atomic<bool>& stop)
    : path(std::move(path)), stop(stop), stream(filter, sink) {}

bool LogFollower::Poll() {
    if (!file && !Open()) return false;
    RestartIfCutShort();
    if (ReadAll()) return true;
    stream.Settle();
    return MoveOn();
}

bool LogFollower::Open() {
    file = FileHandle(path);
    offset = 0;
    return static_cast<bool>(file);
}

bool LogFollower::ReadAll() {
    bool any = false;
    while (!stop.load(std::memory_order_relaxed)) {
        const std::span<char> room = stream.Room();
        const ssize_t got = read(file.Fd(), room.data(), std::min(room.size(), kReadSize));
        if (got <= 0) break;
        offset += got;
        stream.Added(static_cast<size_t>(got));
        any = true;
    }
    return any;
}

void LogFollower::RestartIfCutShort() {
    struct stat status;
    if (fstat(file.Fd(), &status) != 0 || !S_ISREG(status.st_mode) || status.st_size >= offset) return;
    stream.End();
    lseek(file.Fd(), 0, SEEK_SET);
    offset = 0;
}

bool LogFollower::WasReplaced() const {
    struct stat own, present;
    if (fstat(file.Fd(), &own) != 0 || stat(path.c_str(), &present) != 0) return false;
    return own.st_dev != present.st_dev || own.st_ino != present.st_ino;
}

// The writer has closed its file before the next one appears, so what is in it by then is all.
bool LogFollower::MoveOn() {
    struct stat status;
    if (fstat(file.Fd(), &status) != 0) return false;
    const std::optional<std::string> next = WasReplaced() ? path : FindNextLogFile(path, status.st_mtim);
    if (!next) return false;
    ReadAll();
    stream.End();
    path = *next;
    return Open();
}
