#include "runtime/ProcessUtils.h"

#include <sys/utsname.h>

#include <cstdlib>

#include "generated/Version.h"
#include "logging/Log.h"
#include "runtime/FileUtils.h"
#include "runtime/StringUtils.h"

namespace ProcessUtils {

std::string GetHomePath(const std::string& relative) {
    const char* home = std::getenv("HOME");
    if (!home || home[0] == '\0') {
        LOG(Error, "Home folder not found");
        return {};
    }
    return FileUtils::JoinPath(home, relative);
}

std::string GetProcessName() {
    return {};
}

std::string GetOSText() {
    utsname system;
    if (uname(&system) != 0) return "Linux";
    return StringUtils::Format("%s, %s, %s", system.sysname, system.release, system.version);
}

std::string GetVersionText() {
    return "version=" CORVEX_VERSION " build-" CORVEX_BUILD_NUMBER " " CORVEX_REVISION " (" CORVEX_BUILD_TIME ")";
}

}  // namespace ProcessUtils
