#include "logging/ConfigSettingsReader.h"

#include <strings.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <system_error>

#include "logging/Log.h"
#include "logging/LoggerManager.h"
#include "runtime/FileUtils.h"
#include "runtime/KxPollThread.h"
#include "runtime/StringUtils.h"

namespace {

constexpr int32_t kWatchPeriodMS = 60000;

}  // namespace

class ConfigSettingsReader::PollConfigFileWatcher : public KxPollItem {
public:
    explicit PollConfigFileWatcher(ConfigSettingsReader* reader) : KxPollItem("ConfigFileWatcher"), reader(reader) {}
    bool Run(bool timedOut) override {
        reader->CheckFile(timedOut);
        return true;
    }

private:
    ConfigSettingsReader* const reader;  // removes the item before it goes
};

ConfigSettingsReader::ConfigSettingsReader(const std::string& section, const std::string& path)
    : section(section), path(path) {
    ReadFile();
}

ConfigSettingsReader::ConfigSettingsReader(Logger* logger, const std::string& section, const std::string& path)
    : section(section), path(path), logger(logger) {
    if (logger) {
        watcher = RCPtr<KxPollItem>(new PollConfigFileWatcher(this));
        CheckFile(false);
        LoggerManager::GetPollThread()->AddItem(watcher.Get(), kWatchPeriodMS);
    }
    ReadFile();
}

ConfigSettingsReader::~ConfigSettingsReader() {
    if (watcher) watcher->RemoveFromPollThread(true);
}

bool ConfigSettingsReader::GetString(const std::string& key, int index, std::string& value, bool) {
    return index == 0 && properties.Get(key, &value);
}

bool ConfigSettingsReader::GetUInt(const std::string& key, uint32_t* value, bool) {
    std::string text;
    if (!properties.Get(key, &text)) return false;
    const unsigned long number = std::strtoul(text.c_str(), nullptr, 10);
    if (number >= 0xFFFFFFFF) return false;
    *value = static_cast<uint32_t>(number);
    return true;
}

bool ConfigSettingsReader::GetBool(const std::string& key, bool* value, bool) {
    std::string text;
    if (!properties.Get(key, &text)) return false;
    const bool isTrue = strcasecmp(text.c_str(), "true") == 0;
    if (!isTrue && strcasecmp(text.c_str(), "false") != 0) return false;
    *value = isTrue;
    return true;
}

std::string ConfigSettingsReader::Describe(const std::string& key) {
    return path + " [" + section + "." + key + "]";
}

bool ConfigSettingsReader::ReadFile() {
    properties.Clear();
    std::error_code error;
    if (!std::filesystem::is_regular_file(path, error)) return false;  // a pipe would hold up whoever opens it
    std::ifstream file(path);
    if (!file) return false;
    Parse(file);
    if (!file.bad()) return true;
    properties.Clear();  // half of the settings would set the others back to their defaults
    return false;
}

void ConfigSettingsReader::Parse(std::istream& text) {
    for (std::string line; std::getline(text, line);) {
        const size_t equals = line.find('=');
        if (equals == std::string::npos) continue;
        const std::string name = StringUtils::Trim(line.substr(0, equals));
        const size_t point = name.rfind('.');
        if (point == std::string::npos) continue;
        if (point != section.size() || strncasecmp(name.c_str(), section.c_str(), point) != 0) continue;
        const std::string key = StringUtils::Trim(name.substr(point + 1));
        const std::string value = StringUtils::Trim(line.substr(equals + 1));
        if (!key.empty() && !value.empty()) properties.Set(key, value);
    }
}

void ConfigSettingsReader::CheckFile(bool timedOut) {
    KxMutexGuard guard(LoggerLock());
    time_t modified = 0;
    if (!FileUtils::GetModifiedTime(path, &modified) || modified == lastModified) return;
    if (timedOut) {
        LOG_AS("virtual bool ConfigSettingsReader::PollConfigFileWatcher::Run(bool)", Debug,
               "%s changed - rereading file", path.c_str());
        if (ReadFile() && logger) logger->ApplySettings(RCPtr<SettingsReader>(this));
    }
    lastModified = modified;
}
