// What the process knows of its user, its system and itself.
#pragma once

#include <string>

namespace ProcessUtils {

// The path of relative in the user's home folder; an empty text, after an error line, if HOME isn't
// set or empty.
std::string GetHomePath(const std::string& relative);

// The name to show for the process in the log's header; empty where, as here, the platform gives it none.
std::string GetProcessName();

// The operating system's name, release and version, parted by commas.
std::string GetOSText();

// "version=" and the build's version text: version, build number, source revision, build date and time.
std::string GetVersionText();

}  // namespace ProcessUtils
