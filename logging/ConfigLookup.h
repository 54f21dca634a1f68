// Single look-ups in the configuration files of the user and of the system, see ConfigSettingsReader for their form.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

using UINT32 = uint32_t;

namespace StringUtils {

// Appends the configuration files, the user's first: "~/.corvex/config", "/usr/lib/corvex/config",
// "/etc/corvex/config". The home folder is HOME, or else that of the real user's password entry; with neither, the
// first one is left out. An empty HOME counts as not set. The second argument has no effect.
void GetConfigFiles(std::vector<std::string>& files, bool);

// Reads a number from the first of these files where it isn't 0, or 0 if that is all they have. False, with value left
// alone, if no file has a number there, and for a null argument. The last argument goes to GetConfigFiles.
bool GetConfigValue(const char* section, const char* key, UINT32* value, bool);

// The same in a list of files.
bool GetConfigValueOf(const std::vector<std::string>& files, const char* section, const char* key, UINT32* value);

}  // namespace StringUtils

// Whether the remote desktop is reached through the VLM channel: as "Velmora.UseVlmChannel" says, "true", "auto" or
// anything else for no. It is read once per process; the last file of GetConfigFiles that has it decides, and without
// one it is "auto", which means that the client named by VLM_CLIENT_VERSION is of version 8.14 or later.
bool UseVlmChannel();

// Its two steps: the setting in a list of files, and the answer for a setting and a client's version (may be null).
std::string ReadVlmChannelSetting(const std::vector<std::string>& files);
bool UseVlmChannelFor(const std::string& setting, const char* clientVersion);
