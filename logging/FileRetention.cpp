// The scan for old log files of all processes with the same stem, in slices, so that it doesn't hold the thread up. It
// removes those beyond an age, then those beyond a count, oldest first, and never those of its own process.
#include "logging/FileRetention.h"

#include <fnmatch.h>
#include <strings.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <limits>

#include "logging/Log.h"
#include "runtime/StringUtils.h"

namespace {

constexpr int32_t kSliceMS = 1000;
constexpr int32_t kNextScanMS = 14400000;
constexpr int kFilesPerSlice = 20;
constexpr int64 kSecondsPerHour = 3600;
constexpr int64 kSecondsPerDay = 86400;

const char* Plural(int64 count) {
    return count == 1 ? "" : "s";
}

time_t WallClock() {
    const time_t now = time(nullptr);
    return now == static_cast<time_t>(-1) ? 0 : now;
}

}  // namespace

bool FileWriter::PollDeleteLogFiles::Run(bool timedOut) {
    const bool more = writer->ScanStep(!timedOut);
    KxMutexGuard guard(LoggerLock());
    SetTimeoutMS(more ? kSliceMS : kNextScanMS, false);
    return true;
}

FileWriter::FileInfo::FileInfo(const std::string& name, const std::string& path, time_t modified, time_t now)
    : name(name),
      path(path),
      modified(modified),
      ageSeconds(
          static_cast<int32_t>(std::clamp<int64>(int64{now} - modified, 0, std::numeric_limits<int32_t>::max()))) {}

const char* FileWriter::FileInfo::GetAgeText() {
    if (ageText.empty()) ageText = StringUtils::FormatDuration(ageSeconds, 0);
    return ageText.c_str();
}

FileWriter::DirectoryIterator::DirectoryIterator(const std::string& folder, const std::string& spec)
    : folder(folder),
      spec(spec.empty() ? "*" : spec),
      pattern(FileUtils::JoinPath(folder, this->spec)),
      now(WallClock()) {}

FileWriter::DirectoryIterator::~DirectoryIterator() {
    if (handle) closedir(handle);
}

RCPtr<FileWriter::FileInfo> FileWriter::DirectoryIterator::Next() {
    if (!handle && !FileUtils::IsForeignLink(folder)) handle = opendir(folder.c_str());
    if (!handle) return {};
    while (const dirent* entry = readdir(handle)) {
        if (entry->d_type != DT_REG) continue;
        // By name: the folder may hold characters of a pattern.
        if (fnmatch(spec.c_str(), entry->d_name, 0) != 0) continue;
        const std::string path = FileUtils::JoinPath(folder, entry->d_name);
        struct stat status;
        if (lstat(path.c_str(), &status) != 0) continue;
        return new FileInfo(entry->d_name, path, status.st_mtime, now);
    }
    return {};
}

void FileWriter::SignalScan() {
    scanEvent->Set();
}

bool FileWriter::ScanStep(bool restart) {
    if (restart && scanState != kFind) ScanLogFilesDone(true);
    switch (scanState) {
        case kFind:
            if (!FindLogFiles()) scanState = kDeleteOld;
            return true;
        case kDeleteOld:
            if (!DeleteOldLogFiles()) scanState = kDeleteSurplus;
            return true;
        case kDeleteSurplus:
            if (!DeleteMaxLogFiles()) scanState = kDone;
            return true;
        default:
            ScanLogFilesDone(false);
            return false;
    }
}

bool FileWriter::FindLogFiles() {
    if (!iterator) {
        iterator = new DirectoryIterator(folderPath, BuildFileName(0));
        LOG(Info, "Scanning \"%s\"", iterator->pattern.c_str());
        if (iterator->now == 0) {
            LOG(Error, "Failed to start iteration");
            iterator = nullptr;
            return false;
        }
    }
    for (int i = 0; i < kFilesPerSlice; ++i) {
        const RCPtr<FileInfo> info = iterator->Next();
        if (!info) {
            LOG(Info, "Scan complete; %zd file%s found", static_cast<ssize_t>(candidates.size()),
                Plural(static_cast<int64>(candidates.size())));
            iterator = nullptr;
            return false;
        }
        if (!RCPtr<FileUtils::KxFile>(new FileUtils::KxFile(info->path))->Open("a", true)) {
            LOG(Verbose, "Skipping active log file \"%s\" (age %s)", info->name.c_str(), info->GetAgeText());
            ++activeFiles;
        } else if (strncasecmp(info->path.c_str(), processPrefix.c_str(), processPrefix.size()) == 0) {
            LOG(Verbose, "Skipping current process \"%s\" (age %s)", info->name.c_str(), info->GetAgeText());
            ++ownFiles;
        } else {
            LOG(Verbose, "Found \"%s\" (age %s)", info->name.c_str(), info->GetAgeText());
            candidates.emplace(info->ageSeconds, info);
            ++filesFound;
        }
    }
    return true;
}

bool FileWriter::DeleteOldLogFiles() {
    if (maxDaysKept == 0) {
        LOG(Info, "Deleting old log files disabled");
        announceAgeRule = true;
        return false;
    }
    const int64 limit = std::max(kSecondsPerHour * minAgeInHours, kSecondsPerDay * maxDaysKept);
    if (announceAgeRule) {
        LOG(Info, "Deleting files older than %s", StringUtils::FormatDuration(static_cast<double>(limit), 0).c_str());
        announceAgeRule = false;
    }
    for (int i = 0; i < kFilesPerSlice; ++i) {
        if (candidates.empty()) break;
        const RCPtr<FileInfo> oldest = candidates.begin()->second;
        if (oldest->ageSeconds <= limit) {
            LOG(Info, "Stopping at \"%s\" (age %s)", oldest->name.c_str(), oldest->GetAgeText());
            announceAgeRule = true;
            return false;
        }
        DeleteCandidate(__PRETTY_FUNCTION__);
        if (i + 1 == kFilesPerSlice) return true;
    }
    announceAgeRule = true;
    return false;
}

// Files of this process and those that can't be opened are no candidates, so they don't count against the limit; each
// active session is allowed a full share.
bool FileWriter::DeleteMaxLogFiles() {
    if (maxNumFiles == 0) {
        LOG(Info, "Deleting old log files disabled");
        announceCountRule = true;
        return false;
    }
    const int64 minimum = kSecondsPerHour * minAgeInHours;
    const int64 keep = activeFiles < 2 ? int64{maxNumFiles} : int64{activeFiles} * maxNumFiles;
    if (announceCountRule) {
        LOG(Info, "Keeping %d file%s, minimum age %s, %d active session%s", static_cast<int>(keep), Plural(keep),
            StringUtils::FormatDuration(static_cast<double>(minimum), 0).c_str(), activeFiles, Plural(activeFiles));
        announceCountRule = false;
    }
    for (int i = 0; i < kFilesPerSlice; ++i) {
        if (keep >= static_cast<int64>(candidates.size())) break;
        const RCPtr<FileInfo> oldest = candidates.begin()->second;
        if (oldest->ageSeconds <= minimum) {
            LOG(Info, "Stopping at \"%s\" (age %s)", oldest->name.c_str(), oldest->GetAgeText());
            break;
        }
        DeleteCandidate(__PRETTY_FUNCTION__);
        if (i + 1 == kFilesPerSlice) return true;
    }
    announceCountRule = true;
    return false;
}

// The oldest one. It is no candidate any more, whether or not it could be deleted.
void FileWriter::DeleteCandidate(const char* function) {
    const RCPtr<FileInfo> info = candidates.begin()->second;
    candidates.erase(candidates.begin());
    int error = 0;
    if (FileUtils::DeleteFile(info->path, &error)) {
        LOG_AS(function, Info, "Deleted \"%s\" (age %s)", info->name.c_str(), info->GetAgeText());
        ++filesDeleted;
    } else {
        LOG_AS(function, Warn, "Failed to delete \"%s\" (age %s) (errno=%d)", info->name.c_str(), info->GetAgeText(),
               error);
    }
}

void FileWriter::ScanLogFilesDone(bool interrupted) {
    const char* const text = interrupted ? "interrupted" : "complete";
    const std::string next = StringUtils::FormatDuration(kNextScanMS / 1000.0, 0);
    if (filesFound == 0) {
        LOG(Info, "Scan %s; no log files found, next scan in %s", text, next.c_str());
    } else {
        const auto remain = static_cast<int>(candidates.size());
        LOG(Info, "Scan %s; %d file%s deleted, %d file%s remain%s, next scan in %s", text, filesDeleted,
            Plural(filesDeleted), remain, Plural(remain), remain == 1 ? "s" : "", next.c_str());
    }
    scanState = kFind;
    filesFound = filesDeleted = activeFiles = ownFiles = 0;
    candidates.clear();
}
