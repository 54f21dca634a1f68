#include "runtime/FileUtils.h"

#include <fcntl.h>
#include <stdio_ext.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <mutex>
#include <system_error>

#include "logging/Log.h"
#include "runtime/StringUtils.h"

namespace {

constexpr size_t kMaxNameSize = 256;
constexpr int kMaxUserBytes = 255;
constexpr int kMaxBaseBytes = 1023;
constexpr int kMaxTempPathSize = 1024;
constexpr mode_t kFileMode = 0640;
constexpr mode_t kFolderMode = 0777;
constexpr size_t kAppendBuffer = 64 * 1024;

enum AttributeKind { kAnything, kRegularFile, kDirectory };

// The mode mask belongs to the process: two threads that set and restore it at once could leave it at 0.
std::mutex gModeMaskLock;  // guards the process's mode mask

bool HasKind(const char* name, int kind) {
    struct stat status;
    if (stat(name, &status) != 0) return false;
    switch (kind) {
        case kAnything:
            return true;
        case kRegularFile:
            return S_ISREG(status.st_mode);
        case kDirectory:
            return S_ISDIR(status.st_mode);
        default:
            return false;
    }
}

const char* Environment(const char* name) {
    const char* value = std::getenv(name);
    return value && value[0] != '\0' ? value : nullptr;
}

const char* TempBase() {
    for (const char* name : {"TMPDIR", "TMP", "TEMP"}) {
        if (const char* value = Environment(name)) return value;
    }
    return "/tmp";
}

const char* UserName() {
    if (const char* user = Environment("USER")) return user;
    LOG_AS("bool FileUtils::GetKestorUserTempPath(std::string&)", Error,
           "Unable to read $USER variable. Use username as 'default'.\n");
    return "default";
}

}  // namespace

bool GetFileAttributes(const char* name, size_t size, int kind) {
    if (size >= kMaxNameSize) {
        LOG(Error, "File Name too long. GetFileAttributes Failed.\n");
        return false;
    }
    return name && HasKind(name, kind);
}

namespace FileUtils {

bool FileExists(const std::string& path) {
    return GetFileAttributes(path.c_str(), path.size() + 1, kAnything);
}

bool IsFile(const std::string& path) {
    return GetFileAttributes(path.c_str(), path.size() + 1, kRegularFile);
}

bool IsFolder(const std::string& path) {
    return HasKind(path.c_str(), kDirectory);
}

bool IsForeignLink(const std::string& path) {
    struct stat status;
    std::string name = path;
    while (name.size() > 1 && (name.ends_with('/') || name.ends_with("/."))) name.pop_back();
    return lstat(name.c_str(), &status) == 0 && S_ISLNK(status.st_mode) && status.st_uid != geteuid();
}

bool GetFileSize(const std::string& path, uint64* size) {
    struct stat status;
    if (stat(path.c_str(), &status) != 0) return false;
    if (size) *size = static_cast<uint64>(status.st_size);
    return true;
}

bool GetModifiedTime(const std::string& path, time_t* t) {
    struct stat status;
    if (!t || stat(path.c_str(), &status) != 0) return false;
    *t = status.st_mtime;
    return true;
}

bool GetFreeSpace(const std::string& path, uint64* bytes) {
    struct statvfs space;
    if (!bytes || statvfs(path.c_str(), &space) != 0) return false;
    *bytes = static_cast<uint64>(space.f_bavail) * space.f_frsize;
    return true;
}

bool CreateEmptyFile(const std::string& path, bool truncate) {
    const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | (truncate ? O_TRUNC : 0), kFileMode);
    if (fd < 0) return false;
    const bool done = fchmod(fd, kFileMode) == 0;
    const int error = errno;
    close(fd);
    errno = error;
    return done;
}

bool CreateFolder(const std::string& path) {
    int error = 0;
    {
        std::lock_guard guard(gModeMaskLock);
        const mode_t mask = umask(0);
        if (mkdir(path.c_str(), kFolderMode) != 0) error = errno;
        umask(mask);
    }
    if (error != 0) {
        LOG(Error, "Error in creating Log Directory - %s \n", std::generic_category().message(error).c_str());
    }
    return IsFolder(path);
}

bool DeleteFile(const std::string& path, int* error) {
    const int result = unlink(path.c_str()) == 0 ? 0 : errno;
    if (error) *error = result;
    return result == 0 || result == ENOENT;
}

bool GetKestorUserTempPath(std::string& path) {
    char user[kMaxUserBytes + 1];
    StringUtils::CopyString(user, UserName(), kMaxUserBytes);
    char base[kMaxBaseBytes + 1];
    StringUtils::CopyString(base, TempBase(), kMaxBaseBytes);
    const std::string folder = StringUtils::Format("%s/%s-%s", base, "corvex", user);
    if (folder.size() >= kMaxTempPathSize) return false;
    if (!IsFolder(folder) && !CreateFolder(folder)) return false;
    path = folder;
    return true;
}

std::string JoinPath(const std::string& dir, const std::string& name) {
    if (dir.empty()) return name;
    return dir.back() == '/' ? dir + name : dir + "/" + name;
}

std::string GetBaseName(const std::string& path) {
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

Bool KxFile::SetAbsPath(const std::string& path) {
    if (path.empty()) {
        LOG(Debug, "The abolute path of the file is not set.\n");
        return FALSE;
    }
    absPath = path;
    return TRUE;
}

Bool KxFile::Open(const char* mode, bool) {
    if (absPath.empty()) {
        LOG(Debug, "The abolute path of the file is not set.\n");
        return FALSE;
    }
    if (!IsFile(absPath)) {
        LOG(Debug, "%s file does not exist.\n", absPath.c_str());
        return FALSE;
    }
    Close();
    stream.Reset(std::fopen(absPath.c_str(), (std::string(mode) + "e").c_str()));
    return stream.IsValid() ? TRUE : FALSE;
}

bool KxFile::OpenToAppend() {
    Close();
    // A pipe that stands there in place of a file would block the open.
    const int fd = open(absPath.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    if (fd < 0) return false;
    struct stat status;
    if (fstat(fd, &status) == 0 && S_ISREG(status.st_mode)) stream.Reset(fdopen(fd, "a"));
    if (!stream.IsValid()) {
        close(fd);
        return false;
    }
    if (!appendBuffer) appendBuffer = std::make_unique<char[]>(kAppendBuffer);
    std::setvbuf(stream.Get(), appendBuffer.get(), _IOFBF, kAppendBuffer);
    return true;
}

bool KxFile::Close() {
    stream.Reset();
    return true;
}

bool KxFile::Write(const char* text) {
    return stream.IsValid() && text && std::fprintf(stream.Get(), "%s", text) >= 0;
}

// What doesn't fit the buffer goes out ahead of the text, so that the system gets whole texts.
bool KxFile::Write(const char* text, size_t length) {
    if (stream.IsValid() && __fpending(stream.Get()) + length > __fbufsize(stream.Get()) && !Flush()) return false;
    return stream.IsValid() && fwrite_unlocked(text, 1, length, stream.Get()) == length;
}

bool KxFile::Flush() {
    return stream.IsValid() && std::fflush(stream.Get()) == 0;
}

bool KxFile::Exists() {
    return !absPath.empty() && FileExists(absPath);
}

bool KxFile::GetSize(uint64* size) {
    if (absPath.empty()) return false;
    if (!stream.IsValid()) return GetFileSize(absPath, size);
    const off_t position = ftello(stream.Get());
    if (position < 0) return false;
    if (size) *size = static_cast<uint64>(position);
    return true;
}

}  // namespace FileUtils
