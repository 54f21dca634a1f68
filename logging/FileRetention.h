// The parts of the scan for old log files: the poll item that runs it, the walk over the folder, and what it finds.
#pragma once

#include <dirent.h>

#include <ctime>
#include <string>

#include "logging/FileWriter.h"

// Runs one slice of the scan: a minute after the first file was opened, then once a second until the scan is complete,
// then after four hours, or at once when a rule has changed.
class FileWriter::PollDeleteLogFiles : public KxPollItem {
public:
    explicit PollDeleteLogFiles(FileWriter* writer) : KxPollItem("DeleteLogFiles"), writer(writer) {}
    bool Run(bool timedOut) override;

private:
    FileWriter* const writer;  // removes the item before it goes
};

// A file that matched.
class FileWriter::FileInfo : public RCObject {
public:
    FileInfo(const std::string& name, const std::string& path, time_t modified, time_t now);

    // "2 days 0:00:00", made on first use.
    const char* GetAgeText();

    const std::string name;
    const std::string path;
    const time_t modified;
    const int32_t ageSeconds;

private:
    std::string ageText;
};

// The regular files of a folder that match a pattern, in the order of the folder. Entries of unknown type don't count.
class FileWriter::DirectoryIterator : public RCObject {
public:
    DirectoryIterator(const std::string& folder, const std::string& spec);
    DirectoryIterator(const DirectoryIterator&) = delete;
    DirectoryIterator& operator=(const DirectoryIterator&) = delete;
    ~DirectoryIterator() override;

    // Empty at the end, and if the folder can't be opened.
    RCPtr<FileInfo> Next();

    const std::string folder;
    const std::string spec;
    const std::string pattern;  // folder and spec
    const time_t now;           // 0 if it can't be told

private:
    DIR* handle = nullptr;  // opened by the first Next
};
