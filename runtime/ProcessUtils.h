// What the process knows of its user, its system and itself.
#pragma once

#include <string>

namespace ProcessUtils {

// The path of relative in the user's home folder; an empty text, after an error line, if HOME isn't
// set or empty.
std::string GetHomePath(const std::string& relative);

// The operating system's name, release and version, parted by commas.
std::string GetOSText();

// "version=" and the build's version text: version, build number, source revision, build date and time.
std::string GetVersionText();

}  // namespace ProcessUtils
