#include "logging/FileWriter.h"

#include <strings.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <limits>

#include "logging/FileRetention.h"
#include "logging/Log.h"
#include "runtime/KxPollThread.h"
#include "runtime/StringUtils.h"

namespace {

constexpr char kVendor[] = "velmora";
constexpr char kDefaultStem[] = "default";
constexpr uint64 kMB = 1 << 20;
constexpr uint32_t kSizeByLevel = 0xFFFFFFFF;
constexpr uint32_t kMaxSizeMB = 1024;
constexpr uint32_t kMaxRollingFiles = 1000;
constexpr uint32_t kMinDiskMarginMB = 50;
constexpr uint64 kReopenMS = 1000;
constexpr size_t kPrefixTail = 5;  // " A *: ", less the blank: level letter and name of the function text "*"
constexpr int kFirstScanMS = 60000;

constexpr const char* kSessionBanner[] = {
    "\n",
    "******************************************************************************\n",
    "************************   NEW LOG SESSION STARTING   ************************\n",
    "******************************************************************************\n",
    "\n",
};

bool IsKey(const std::string& key, const char* name) {
    return strcasecmp(key.c_str(), name) == 0;
}

// "YYYY-MM-DD-HH-MM" in local time.
std::string FileStamp() {
    std::string stamp = StringUtils::GetTimestamp(false);
    for (const char parted : {' ', ':'}) {
        if (const size_t at = stamp.find(parted); at != std::string::npos) stamp[at] = '-';
    }
    return stamp.substr(0, stamp.find(':'));
}

}  // namespace

FileWriter::FileWriter()
    : LogWriter(kFileWriter), scanEvent(new KxEvent(false, false)), deleteItem(new PollDeleteLogFiles(this)) {
    SetBuffering(true);
    deleteItem->SetRCEvent(scanEvent);
    deleteItem->SetTimeoutMS(kFirstScanMS, true);
}

FileWriter::~FileWriter() {
    deleteItem->RemoveFromPollThread(true);
}

bool FileWriter::ShouldDrop(const RCPtr<LogMessage>& message) {
    return suspended.load(std::memory_order_relaxed) && message->Level() > kLogError;
}

bool FileWriter::SetProperty(const std::string& key, const std::string& value) {
    KxMutexGuard guard(LoggerLock());
    if (key.empty() || value.empty()) return false;
    const unsigned long given = std::strtoul(value.c_str(), nullptr, 0);
    const auto number = static_cast<uint32_t>(std::min<unsigned long>(given, std::numeric_limits<uint32_t>::max()));
    if (IsKey(key, "filename") || IsKey(key, "folderPath")) {
        if (IsStarted() || file) return false;
        (IsKey(key, "filename") ? filename : folderPath) = value;
    } else if (IsKey(key, "maxDaysKept")) {
        maxDaysKept = number;
        SignalScan();
    } else if (IsKey(key, "maxNumFiles")) {
        maxNumFiles = number;
        SignalScan();
    } else if (IsKey(key, "minAgeInHours")) {
        minAgeInHours = number;
        SignalScan();
    } else if (IsKey(key, "maxFileSizeMB")) {
        maxFileSizeMB = number == kSizeByLevel ? number : std::min(number, kMaxSizeMB);
    } else if (IsKey(key, "maxRollingFiles")) {
        maxRollingFiles = std::min(number, kMaxRollingFiles);
    } else if (IsKey(key, "diskThresholdLowMB")) {
        if (number < diskThresholdLowMB.exchange(number)) recheckDisk = true;
    } else if (IsKey(key, "diskThresholdHighMB")) {
        diskThresholdHighMB = number;
    }
    return true;
}

bool FileWriter::GetProperty(const std::string& key, std::string& value) {
    KxMutexGuard guard(LoggerLock());
    if (key.empty()) return false;
    if (IsKey(key, "filename")) {
        value = filename;
    } else if (IsKey(key, "folderPath")) {
        value = folderPath;
    } else if (IsKey(key, "maxDaysKept")) {
        value = std::to_string(maxDaysKept);
    } else if (IsKey(key, "maxNumFiles")) {
        value = std::to_string(maxNumFiles);
    } else if (IsKey(key, "minAgeInHours")) {
        value = std::to_string(minAgeInHours);
    } else if (IsKey(key, "maxFileSizeMB")) {
        value = std::to_string(SizeLimitMB());
    } else if (IsKey(key, "maxRollingFiles")) {
        value = std::to_string(maxRollingFiles);
    } else if (IsKey(key, "diskThresholdLowMB")) {
        value = std::to_string(diskThresholdLowMB);
    } else if (IsKey(key, "diskThresholdHighMB")) {
        value = std::to_string(diskThresholdHighMB);
    }
    return true;
}

// number is 0 for the pattern of all files of this stem, -1 for the common part of this process's files, or that of a
// file.
std::string FileWriter::BuildFileName(int number) {
    std::string stem = filename;
    if (stem.empty() && logger) stem = logger->GetComponentName();
    if (stem.empty()) stem = kDefaultStem;
    std::string name = StringUtils::Format("%s%c%s", kVendor, '-', stem.c_str());
    if (number == 0) return name + "*";
    name += StringUtils::Format("%c%d%c%d", '-', 0, '-', getpid());
    if (number == -1) return name;
    const bool rolling = maxRollingFiles != 0;
    const bool marked = number > 1 || !rolling || (logger && logger->GetLevel() >= kLogDebug);
    if (marked) name += StringUtils::Format("(%0*d)", rolling ? 1 : 4, number);
    return name + "__" + FileStamp() + ".log";
}

bool FileWriter::Open() {
    if (folderPath.empty() && !FileUtils::GetKestorUserTempPath(folderPath)) return false;
    ++fileCounter;
    fileOpen = !FileUtils::IsForeignLink(folderPath) && OpenFile();
    if (!fileOpen) {
        reopenTimer.GetTimerCount(KxTimer::Mode::Start, 0);
        return false;
    }
    // Not by a roll: the item is gone for good when the manager shuts down, and its thread must not start again.
    if (!IsStarted() && !deleteItem->GetPollThread()) LoggerManager::GetPollThread()->AddItem(deleteItem.Get());
    return true;
}

bool FileWriter::OpenFile() {
    {
        KxMutexGuard guard(LoggerLock());
        currentName = BuildFileName(static_cast<int>(fileCounter));
        const std::string prefix = FileUtils::JoinPath(folderPath, BuildFileName(-1));
        if (prefix != processPrefix) processPrefix = prefix;  // set once: the scan reads it without the lock
        currentPath = FileUtils::JoinPath(folderPath, currentName);
    }
    const bool existed = FileUtils::FileExists(currentPath);
    if (!existed && !FileUtils::CreateEmptyFile(currentPath, false)) return false;
    file = new FileUtils::KxFile(currentPath);
    if (!file->OpenToAppend()) return false;
    torn = false;
    if (fileCounter > 1) rolledFiles.push_back(currentPath);
    if (existed) {
        for (const char* line : kSessionBanner) file->Write(line, std::strlen(line));
    }
    return true;
}

std::string FileWriter::GetCurrentPath() {
    KxMutexGuard guard(LoggerLock());
    return currentPath;
}

bool FileWriter::WriteMessage(const RCPtr<LogMessage>& message) {
    if (!IsStarted()) return false;
    if (ShouldDrop(message)) return false;
    if (!HasFile() && !Reopen()) {
        ++lostLines;
        return false;
    }
    if (logger && logger->ScrubsMessages()) message->Scrub();
    if (torn) torn = !file->Write("\n", 1);
    const bool written = file->Write(message->Text(), static_cast<size_t>(message->Length()));
    if (!written) torn = true;
    return written;
}

// Tries to get past a failed roll.
bool FileWriter::Reopen() {
    if (reopenTimer.GetTimerMS(KxTimer::Mode::Read, 0) < kReopenMS) return false;
    file = nullptr;
    if (!Open()) return false;
    ReportLostLines();
    TrimRolledFiles();
    return true;
}

// Again by a later pass if the system refuses it.
void FileWriter::ReportLostLines() {
    if (lostLines > 0 && HasFile() && ReportLost(lostLines, kLogAlways) && FlushMedium()) lostLines = 0;
}

void FileWriter::EndWrite() {
    ReportLostLines();
    if (ReachedSizeLimit()) {
        RollLogFile();
    } else {
        FlushMedium();
    }
    CheckDiskSpace();
}

uint32_t FileWriter::SizeLimitMB() const {
    const uint32_t limit = maxFileSizeMB;
    if (limit != kSizeByLevel) return limit;
    switch (logger ? logger->GetLevel() : kLogInfo) {
        case kLogDebug:
            return 50;
        case kLogTrace:
            return 75;
        case kLogVerbose:
            return 99;
        default:
            return 15;
    }
}

bool FileWriter::ReachedSizeLimit() {
    const uint32_t limit = SizeLimitMB();
    uint64 size = 0;
    return limit != 0 && HasFile() && file->GetSize(&size) && size >= limit * kMB;
}

void FileWriter::RollLogFile() {
    Close();
    if (Open()) TrimRolledFiles();
}

void FileWriter::TrimRolledFiles() {
    const uint32_t kept = maxRollingFiles;
    if (kept == 0) return;
    while (rolledFiles.size() > kept) {
        const std::string path = rolledFiles.front();
        rolledFiles.pop_front();
        int error = 0;
        if (FileUtils::DeleteFile(path, &error)) {
            LOG(Info, "Deleted \"%s\"", FileUtils::GetBaseName(path).c_str());
        } else {
            LOG(Warn, "Failed to delete \"%s\" (errno=%d)", FileUtils::GetBaseName(path).c_str(), error);
        }
    }
}

// Hysteresis between the two thresholds.
void FileWriter::CheckDiskSpace() {
    uint64 free = 0;
    if (!(freeSpaceSource ? freeSpaceSource(folderPath, &free) : FileUtils::GetFreeSpace(folderPath, &free))) return;
    const uint64 lowMB = diskThresholdLowMB;
    const uint64 low = lowMB * kMB;
    if (!suspended) {
        if (free > low) {
            recheckDisk = false;
            return;
        }
    } else {
        const uint64 high = std::max<uint64>(lowMB + kMinDiskMarginMB, diskThresholdHighMB) * kMB;
        if (free < high) {
            if (!recheckDisk) return;
            if (free < low) {
                recheckDisk = false;
                return;
            }
        }
    }
    suspended = !suspended;
    recheckDisk = false;
    ReportDiskSpace(free);
}

// Behind date, thread and process, without level letter and name.
void FileWriter::ReportDiskSpace(uint64 freeBytes) {
    const RCPtr<LogMessage> message = NewMessage(kLogAlways);
    if (!message) return;
    constexpr char kStars[] = "*******";
    const std::string freeText = StringUtils::FormatBytes(static_cast<double>(freeBytes), 1);
    if (suspended) message->Printf("\n");
    char prefix[256];
    const auto length = static_cast<size_t>(FormatPrefix(prefix, sizeof prefix, "*", kLogAlways));
    if (length > kPrefixTail) message->Append(prefix, static_cast<int>(length - kPrefixTail), false);
    if (suspended) {
        suspendTimer.GetTimerCount(KxTimer::Mode::Start, 0);
        message->Printf("%s Free disk space is %s - Logging suspended %s\n", kStars, freeText.c_str(), kStars);
    } else {
        const double seconds = suspendTimer.GetTimerSeconds(KxTimer::Mode::Read, 0);
        message->Printf("%s Free disk space is %s - Logging resumed after %s %s\n\n", kStars, freeText.c_str(),
                        StringUtils::FormatDuration(seconds, 3).c_str(), kStars);
    }
    WriteMessage(message);
    FlushMedium();
}

bool FileWriter::FlushMedium() {
    if (!HasFile()) return false;
    const bool flushed = file->Flush();
    if (!flushed) torn = true;
    return flushed;
}

bool FileWriter::Close() {
    if (IsStopping()) deleteItem->RemoveFromPollThread(true);
    if (file) file->Close();
    fileOpen = false;
    KxMutexGuard guard(LoggerLock());
    file = nullptr;
    return true;
}
