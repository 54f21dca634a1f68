// The files of a log: their order, and which one follows which.
#pragma once

#include <ctime>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// What the name of a log file tells: "velmora-<stem>-0-<pid>[(number)]__YYYY-MM-DD-HH-MM.log".
struct LogFileName {
    std::string_view process;  // "velmora-<stem>-0-<pid>", which all files of one process share
    uint32_t number = 1;       // 1 without a mark
    std::string_view stamp;    // "YYYY-MM-DD-HH-MM"
};

// name is without its folder. Nothing for a name of another form.
std::optional<LogFileName> ParseLogFileName(std::string_view name);

// Folder and process part of the path; empty if the name isn't that of a log file.
std::string LogFamily(const std::string& path);

// The file that the same process rolled to after the one at path: of those in its folder that have a higher number or a
// later stamp and were written no earlier than modified, when that one was last written, the one written first.
std::optional<std::string> FindNextLogFile(const std::string& path, const timespec& modified);

// Sorts by the stamp of the first entry. Files without an entry in their first megabyte, and files that aren't there,
// come last; otherwise files of equal rank keep their order.
void SortByFirstStamp(std::vector<std::string>& paths);

// One line that says why the file can't be read; empty if it can.
std::string WhyUnreadable(const std::string& path);
