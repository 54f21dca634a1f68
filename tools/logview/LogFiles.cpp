#include "tools/logview/LogFiles.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <filesystem>
#include <limits>
#include <tuple>
#include <utility>

#include "tools/logview/FileHandle.h"
#include "tools/logview/RecordStream.h"

namespace {

constexpr std::string_view kVendor = "velmora-";
constexpr std::string_view kProcessMark = "-0-";
constexpr std::string_view kStampMark = "__";
constexpr std::string_view kExtension = ".log";
constexpr std::string_view kStampShape = "0000-00-00-00-00";

bool IsDigit(char c) {
    return c >= '0' && c <= '9';
}

bool IsNumber(std::string_view text) {
    return !text.empty() && std::all_of(text.begin(), text.end(), IsDigit);
}

bool IsStamp(std::string_view text) {
    return text.size() == kStampShape.size() &&
           std::equal(text.begin(), text.end(), kStampShape.begin(),
                      [](char c, char shape) { return shape == '0' ? IsDigit(c) : c == shape; });
}

// Takes "(number)" off the end of text; false if something else in parentheses stands there.
bool TakeMark(std::string_view* text, uint32_t* number) {
    if (!text->ends_with(')')) return true;
    const size_t open = text->rfind('(');
    if (open == std::string_view::npos) return false;
    const std::string_view digits = text->substr(open + 1, text->size() - open - 2);
    if (!IsNumber(digits)) return false;
    if (std::from_chars(digits.data(), digits.data() + digits.size(), *number).ec != std::errc()) return false;
    *text = text->substr(0, open);
    return true;
}

std::pair<std::string, std::string> Split(const std::string& path) {
    const size_t slash = path.rfind('/');
    if (slash == std::string::npos) return {"", path};
    return {path.substr(0, slash + 1), path.substr(slash + 1)};
}

class FirstEntry : public RecordSink {
public:
    void Take(const LogRecord& record) override {
        if (!time && record.line.kind == LineKind::Entry) time = StampToMS(record.line.stamp);
    }
    std::optional<int64_t> time;
};

int64_t FirstTime(const std::string& path) {
    const FileHandle file(path);
    const RecordFilter all;
    FirstEntry first;
    RecordStream stream(all, first);
    for (off_t at = 0; at < static_cast<off_t>(RecordStream::kCapacity) && !first.time;) {
        const std::span<char> room = stream.Room();
        const ssize_t got = pread(file.Fd(), room.data(), std::min<size_t>(room.size(), 4096), at);
        if (got <= 0) break;
        stream.Added(static_cast<size_t>(got));
        at += got;
    }
    stream.End();
    return first.time.value_or(std::numeric_limits<int64_t>::max());
}

std::optional<std::string> LookForNext(const std::string& path, const timespec& modified) {
    const auto [folder, name] = Split(path);
    const auto present = ParseLogFileName(name);
    if (!present) return std::nullopt;
    using Key = std::tuple<time_t, long, uint32_t>;
    std::optional<std::pair<Key, std::string>> best;
    std::error_code error;
    for (std::filesystem::directory_iterator entry(folder.empty() ? "." : folder, error), last; !error && entry != last;
         entry.increment(error)) {
        const std::string other = entry->path().filename();
        const auto parsed = ParseLogFileName(other);
        if (!parsed || parsed->process != present->process) continue;
        if (parsed->number <= present->number && parsed->stamp <= present->stamp) continue;
        struct stat status;
        if (stat((folder + other).c_str(), &status) != 0 || !S_ISREG(status.st_mode)) continue;
        const Key key = {status.st_mtim.tv_sec, status.st_mtim.tv_nsec, parsed->number};
        if (key < Key(modified.tv_sec, modified.tv_nsec, 0)) continue;
        if (!best || key < best->first) best = {key, folder + other};
    }
    if (!best) return std::nullopt;
    return best->second;
}

}  // namespace

std::optional<LogFileName> ParseLogFileName(std::string_view name) {
    if (!name.starts_with(kVendor) || !name.ends_with(kExtension)) return std::nullopt;
    name.remove_suffix(kExtension.size());
    const size_t mark = name.rfind(kStampMark);
    if (mark == std::string_view::npos) return std::nullopt;
    LogFileName result;
    result.stamp = name.substr(mark + kStampMark.size());
    result.process = name.substr(0, mark);
    if (!IsStamp(result.stamp) || !TakeMark(&result.process, &result.number)) return std::nullopt;
    const size_t process = result.process.rfind(kProcessMark);
    if (process == std::string_view::npos || process <= kVendor.size()) return std::nullopt;
    if (!IsNumber(result.process.substr(process + kProcessMark.size()))) return std::nullopt;
    return result;
}

std::string LogFamily(const std::string& path) {
    const auto [folder, name] = Split(path);
    const auto parsed = ParseLogFileName(name);
    return parsed ? folder + std::string(parsed->process) : std::string();
}

std::optional<std::string> FindNextLogFile(const std::string& path, const timespec& modified) {
    // One look may see the last of several files that came during it and not the first; the second one sees them all.
    if (!LookForNext(path, modified)) return std::nullopt;
    return LookForNext(path, modified);
}

void SortByFirstStamp(std::vector<std::string>& paths) {
    std::vector<std::pair<int64_t, std::string>> keyed;
    keyed.reserve(paths.size());
    for (std::string& path : paths) {
        const int64_t time = FirstTime(path);
        keyed.emplace_back(time, std::move(path));
    }
    std::stable_sort(keyed.begin(), keyed.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
    for (size_t i = 0; i < paths.size(); i++) paths[i] = std::move(keyed[i].second);
}

std::string WhyUnreadable(const std::string& path) {
    struct stat status;
    if (stat(path.c_str(), &status) != 0 || access(path.c_str(), R_OK) != 0)
        return "cannot read " + path + ": " + std::strerror(errno);
    if (S_ISDIR(status.st_mode)) return path + " is a directory";
    return {};
}
