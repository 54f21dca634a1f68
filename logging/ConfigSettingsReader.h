// Settings from a text file of lines "section.key = value".
#pragma once

#include <ctime>
#include <istream>
#include <string>

#include "logging/SettingsReader.h"
#include "runtime/KxPropertyManager.h"

class KxPollItem;
class Logger;

// The section may hold points, the key may not; sections compare without regard to case, keys exactly. White space
// ahead of the section, around the key and around the value doesn't count, a value may hold "=" and blanks, an empty
// one is none. A later line with the same key replaces an earlier one. Lines of another form, and of other sections,
// are skipped.
//
// One reader is used by one thread, or, attached to a logger, under the log lock.
class ConfigSettingsReader : public SettingsReader {
public:
    // Reads the file once. One that can't be read leaves the reader without keys.
    ConfigSettingsReader(const std::string& section, const std::string& path);

    // Attaches to logger, which outlives the reader's time on the logger's poll thread: once a minute the file's time
    // of change is looked at, and when it is another one the file is read again and applied.
    ConfigSettingsReader(Logger* logger, const std::string& section, const std::string& path);
    ~ConfigSettingsReader() override;

    bool IsFileReader() override { return true; }
    const char* GetName() override { return "ConfigFileReader"; }
    bool GetString(const std::string& key, int index, std::string& value, bool) override;
    // Decimal; text that isn't a number reads as 0. 0xFFFFFFFF counts as no value.
    bool GetUInt(const std::string& key, uint32_t* value, bool) override;
    // "true" and "false" in any case; anything else counts as no value.
    bool GetBool(const std::string& key, bool* value, bool) override;
    std::string Describe(const std::string& key) override;

    // False, with no keys left, if the file can't be read.
    bool ReadFile();

    // The watcher's look at the file. Without timedOut it only takes note of the time of change.
    void CheckFile(bool timedOut);

    // Takes the keys of text.
    void Parse(std::istream& text);

private:
    class PollConfigFileWatcher;

    const std::string section;
    const std::string path;
    KxPropertyManager properties;
    RCPtr<KxPollItem> watcher;       // null unless attached
    Logger* const logger = nullptr;  // null unless attached
    time_t lastModified = 0;
};
