// Paths and files. The functions hold no state and are safe on any thread as far as the file system is. A symbolic link
// stands for what it points to.
#pragma once

#include <cstddef>
#include <cstdio>
#include <ctime>
#include <memory>
#include <string>

#include "runtime/Holder.h"
#include "runtime/RCObject.h"
#include "runtime/Types.h"

// Tells whether something stands at name: anything at all (kind 0), a regular file (1), a directory (2). size is the
// length of name plus 1; from 256 on the answer is false, with an error line.
bool GetFileAttributes(const char* name, size_t size, int kind);

namespace FileUtils {

// Kinds 0 and 1 of GetFileAttributes, with its limit.
bool FileExists(const std::string& path);
bool IsFile(const std::string& path);

// A directory stands at path, which may have any length.
bool IsFolder(const std::string& path);

// A symbolic link of another user than this process's stands at path, "/" and "/." at its end not counted; the folders
// on the way may be anybody's. Root counts as another user.
bool IsForeignLink(const std::string& path);

// The length in bytes; false if there is nothing at path. size may be null.
bool GetFileSize(const std::string& path, uint64* size);

// The time of the last change in seconds; false if t is null or there is nothing at path.
bool GetModifiedTime(const std::string& path, time_t* t);

// The bytes that an unprivileged user can still write to the file system of path; false if that can't be told.
bool GetFreeSpace(const std::string& path, uint64* bytes);

// Makes sure that a file is at path, emptied if truncate, with mode 0640 even if it was there before. False, with errno
// left as the system set it, if that fails, and for a symbolic link.
bool CreateEmptyFile(const std::string& path, bool truncate);

// Makes the directory, open to all users whatever the mode mask says. Returns whether a directory is there afterwards:
// for one that was there, true after an error line.
bool CreateFolder(const std::string& path);

// Removes the file. error, which may be null, receives 0 or errno. True also if nothing was there, with ENOENT.
bool DeleteFile(const std::string& path, int* error);

// The user's own folder for temporary files, "<tmp>/corvex-<user>", made if it isn't there. On failure false, and path
// is left alone. An environment variable that is empty counts as not set.
bool GetKestorUserTempPath(std::string& path);

// dir, one "/" and name; name alone if dir is empty.
std::string JoinPath(const std::string& dir, const std::string& name);

// What follows the last "/".
std::string GetBaseName(const std::string& path);

// A standard file stream on a file that is there already. Guarded by its owner.
class KxFile : public RCObject {
public:
    KxFile() = default;
    explicit KxFile(const std::string& absPath) : absPath(absPath) {}

    // Refuses an empty path and keeps the earlier one. An open stream stays on its file.
    Bool SetAbsPath(const std::string& path);

    // Opens the file with a mode of fopen; the second argument has no effect. A file that isn't there is never made,
    // and is refused with an earlier stream left open. Otherwise an open stream is closed first, and on failure none
    // is open, with errno left as the system set it. The stream isn't passed on to programs that the process starts.
    Bool Open(const char* mode, bool);

    // Opens the file for appending. As above, but never through a symbolic link, and a regular file only.
    bool OpenToAppend();

    // Closes the stream, if there is one; always true.
    bool Close();

    // False without a stream, or if the system refused.
    bool Write(const char* text);
    // The caller sees to it that no other thread uses the stream. After OpenToAppend the system gets whole texts, as
    // long as each fits the stream's 64 KiB.
    bool Write(const char* text, size_t length);
    bool Flush();

    bool Exists();

    // With a stream its position, otherwise the length of the file. False if that can't be told; size may be null.
    bool GetSize(uint64* size);

private:
    std::string absPath;
    std::unique_ptr<char[]> appendBuffer;  // the stream's, so it goes after it
    FileHolder stream;
};

}  // namespace FileUtils
