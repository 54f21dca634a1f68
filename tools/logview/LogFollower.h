// Follows a log file that is being written, through all that happens to it.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <string>

#include "tools/logview/FileHandle.h"
#include "tools/logview/RecordStream.h"

// Hands on what stands in the file and then, at each Poll, what has come: across the files that its process rolls to,
// when it is cut short (it is then read again from its start), when another file takes its place, and when it isn't
// there yet. A line is handed on when it is at its end, and a record when the next one begins or nothing more has come
// since the last Poll.
class LogFollower {
public:
    // Filter, sink and stop outlive the follower. Once stop is true reading ends early.
    LogFollower(std::string path, const RecordFilter& filter, RecordSink& sink, const std::atomic<bool>& stop);

    // True if there was something new, and thus may be more.
    bool Poll();

    // Hands on a last line that is not at its end.
    void Finish() { stream.End(); }

    const std::string& Path() const { return path; }

private:
    bool Open();
    bool ReadAll();
    void RestartIfCutShort();
    bool MoveOn();
    bool WasReplaced() const;

    std::string path;
    const std::atomic<bool>& stop;
    RecordStream stream;
    FileHandle file;
    off_t offset = 0;  // bytes read
};
