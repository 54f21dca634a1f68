#include "logging/ConfigLookup.h"

#include <pwd.h>
#include <strings.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "logging/ConfigSettingsReader.h"
#include "logging/Log.h"
#include "runtime/StringUtils.h"

namespace {

constexpr int kFirstMajor = 8;  // of the clients that have the channel, from this minor on
constexpr int kFirstMinor = 14;

std::string HomeFolder() {
    const char* const home = std::getenv("HOME");
    if (home && home[0] != '\0') return home;
    char buffer[4096];
    passwd entry;
    passwd* found = nullptr;
    if (getpwuid_r(getuid(), &entry, buffer, sizeof buffer, &found) != 0 || !found || !found->pw_dir) return {};
    return found->pw_dir;
}

}  // namespace

namespace StringUtils {

void GetConfigFiles(std::vector<std::string>& files, bool) {
    const std::string home = HomeFolder();
    if (!home.empty()) files.push_back(Format("%s/.corvex/config", home.c_str()));
    files.emplace_back("/usr/lib/corvex/config");
    files.emplace_back("/etc/corvex/config");
}

bool GetConfigValue(const char* section, const char* key, UINT32* value, bool all) {
    std::vector<std::string> files;
    GetConfigFiles(files, all);
    return GetConfigValueOf(files, section, key, value);
}

bool GetConfigValueOf(const std::vector<std::string>& files, const char* section, const char* key, UINT32* value) {
    if (!value || !section || !key) return false;
    bool found = false;
    for (const std::string& file : files) {
        UINT32 number = 0;
        const RCPtr<ConfigSettingsReader> reader(new ConfigSettingsReader(section, file));
        if (!reader->GetUInt(key, &number, true)) continue;
        *value = number;
        found = true;
        LOG_AS("bool StringUtils::GetConfigValue(const char*, const char*, UINT32*, bool)", Trace,
               "Found value=%d for setting %s.%s, in %s file.\n", static_cast<int>(number), section, key, file.c_str());
        if (number != 0) break;
    }
    return found;
}

}  // namespace StringUtils

bool UseVlmChannel() {
    static const std::string setting = [] {
        std::vector<std::string> files;
        StringUtils::GetConfigFiles(files, true);
        return ReadVlmChannelSetting(files);
    }();
    return UseVlmChannelFor(setting, std::getenv("VLM_CLIENT_VERSION"));
}

std::string ReadVlmChannelSetting(const std::vector<std::string>& files) {
    for (auto file = files.rbegin(); file != files.rend(); ++file) {
        const RCPtr<ConfigSettingsReader> reader(new ConfigSettingsReader("Velmora", *file));
        std::string value;
        if (reader->GetString("UseVlmChannel", 0, value, true)) return value;
    }
    return "auto";
}

bool UseVlmChannelFor(const std::string& setting, const char* clientVersion) {
    if (strcasecmp(setting.c_str(), "true") == 0) return true;
    if (strcasecmp(setting.c_str(), "auto") != 0) return false;
    int major = 0;
    int minor = 0;
    // At most nine digits, so that no number is out of range.
    if (!clientVersion || std::sscanf(clientVersion, "%9d.%9d", &major, &minor) != 2) return false;
    return major > kFirstMajor || (major == kFirstMajor && minor >= kFirstMinor);
}
