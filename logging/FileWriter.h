// The writer on files: one file of its own for each process, rolled by size, suspended while the disk is low, and with
// a scan that removes old files of all processes.
#pragma once

#include <atomic>
#include <functional>
#include <list>
#include <map>
#include <string>

#include "logging/LogWriter.h"
#include "runtime/FileUtils.h"
#include "runtime/KxTimer.h"

// Buffered from the start. Properties, by key in any case; numbers as strtoul with base 0 reads them, sizes in units of
// 2^20 bytes:
//
//   filename, folderPath             stem and folder of the files; refused once there is a file
//   maxDaysKept, maxNumFiles         limits of the removal of old files, 0 for none; a change starts a scan at once
//   minAgeInHours                    younger files are never removed
//   maxFileSizeMB                    size at which a new file begins, at most 1024; 0 for no limit; by default chosen
//                                    by the level: 15, at DEBUG 50, at TRACE 75, at VERBOSE 99
//   maxRollingFiles                  files kept of those that this process has begun after its first, at most 1000; 0
//                                    for no limit
//   diskThresholdLowMB, ...HighMB    free space at which all but ALWAYS and ERROR lines are dropped, and at which they
//                                    come again (at least 50 above the low one)
//
// Files are named "velmora-<stem>-0-<process>(<number>)__<YYYY-MM-DD-HH-MM>.log", with mode 0640, never opened through
// a symbolic link, nor in a folder that is a symbolic link of another user. Lines that can't be written because a new
// file can't be opened are counted and reported when one can; that is tried again once a second at most, with the next
// line, and each try takes a number. A line that the system refuses is lost; if a part of it got through, the next line
// begins on a line of its own. Only the first Open has the old files scanned for.
class FileWriter : public LogWriter {
public:
    FileWriter();
    ~FileWriter() override;

    bool ShouldDrop(const RCPtr<LogMessage>& message) override;
    bool SetProperty(const std::string& key, const std::string& value) override;
    bool GetProperty(const std::string& key, std::string& value) override;
    bool Open() override;
    bool WriteMessage(const RCPtr<LogMessage>& message) override;
    bool Close() override;
    void EndWrite() override;
    bool FlushMedium() override;

    // The path of the current file. For people: it may have been rolled by the time it is read.
    std::string GetCurrentPath();

    // One slice of the scan for old files, on the thread "Logger": at most 20 files are looked at or removed. restart
    // begins it anew. True while there is more to do.
    bool ScanStep(bool restart);

    // Tells free space in place of the file system; empty to ask it again. Before the start.
    void SetFreeSpaceSource(std::function<bool(const std::string& folder, uint64* bytes)> source) {
        freeSpaceSource = std::move(source);
    }

private:
    class PollDeleteLogFiles;
    class DirectoryIterator;
    class FileInfo;

    enum ScanState { kFind, kDeleteOld, kDeleteSurplus, kDone };

    bool HasFile() const { return file && fileOpen; }
    std::string BuildFileName(int number);
    bool OpenFile();
    uint32_t SizeLimitMB() const;
    bool ReachedSizeLimit();
    void RollLogFile();
    void TrimRolledFiles();
    bool Reopen();
    void ReportLostLines();
    void CheckDiskSpace();
    void ReportDiskSpace(uint64 freeBytes);

    bool FindLogFiles();
    bool DeleteOldLogFiles();
    bool DeleteMaxLogFiles();
    void ScanLogFilesDone(bool interrupted);
    void DeleteCandidate(const char* function);
    void SignalScan();

    // The settings are changed under the log lock and read by passes without it: single words, so atomic.
    std::string filename;
    std::string currentName;
    std::string folderPath;
    std::string currentPath;    // GUARDED_BY the log lock for others than the pass
    std::string processPrefix;  // folder and common part of the names of this process's files
    std::atomic<uint32_t> maxDaysKept{7};
    std::atomic<uint32_t> maxNumFiles{25};
    std::atomic<uint32_t> minAgeInHours{2};
    std::atomic<uint32_t> maxFileSizeMB{0xFFFFFFFF};  // chosen by the level
    std::atomic<uint32_t> maxRollingFiles{4};
    uint32_t fileCounter = 0;            // calls of Open so far
    std::list<std::string> rolledFiles;  // paths of the files after the first, oldest first
    std::atomic<uint32_t> diskThresholdLowMB{200};
    std::atomic<uint32_t> diskThresholdHighMB{500};
    std::atomic<bool> recheckDisk{false};  // the low threshold was lowered
    std::atomic<bool> suspended{false};
    KxElapsedTimer suspendTimer;
    RCPtr<FileUtils::KxFile> file;
    bool fileOpen = false;
    bool torn = false;           // the system refused a part of a line: the next one begins afresh
    KxElapsedTimer reopenTimer;  // since a new file couldn't be opened
    int lostLines = 0;           // meanwhile

    // The scan, on the thread "Logger" alone.
    int scanState = kFind;
    bool announceAgeRule = true;
    bool announceCountRule = true;
    int filesFound = 0;
    int filesDeleted = 0;
    int activeFiles = 0;  // that couldn't be opened
    int ownFiles = 0;
    const RCPtr<KxEvent> scanEvent;  // a rule has changed
    const RCPtr<KxPollItem> deleteItem;
    std::multimap<int32_t, RCPtr<FileInfo>, std::greater<int32_t>> candidates;  // by age in seconds, oldest first
    RCPtr<DirectoryIterator> iterator;                                          // while the folder is being walked

    std::function<bool(const std::string&, uint64*)> freeSpaceSource;
};
