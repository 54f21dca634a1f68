#include "tools/replay/ProgramLog.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "logging/LoggerManager.h"
#include "runtime/FileUtils.h"

namespace fs = std::filesystem;

ProgramLog::~ProgramLog() {
    if (!logger) return;
    LoggerManager::Shutdown();
}

bool ProgramLog::Start(const std::string& component, const std::string& name, const std::string& file,
                       std::string* error) {
    if (access(file.c_str(), R_OK) != 0) {
        *error = file + ": " + std::strerror(errno);
        return false;
    }
    logger = LoggerManager::CreateLogger(name, component, true);
    if (logger && logger->AddConfigFile(file) && logger->Start()) return true;
    *error = file + ": no writer starts with the settings of section " + component + "." + name;
    return false;
}

std::string FindPluginLog() {
    std::string folder;
    if (!FileUtils::GetKestorUserTempPath(folder)) return {};
    const std::string prefix = "velmora-UsbRedirectionClient-0-" + std::to_string(getpid());
    std::string newest;
    fs::file_time_type newestTime;
    std::error_code failure;
    for (const fs::directory_entry& entry : fs::directory_iterator(folder, failure)) {
        const std::string name = entry.path().filename().string();
        const bool own =
            name.compare(0, prefix.size(), prefix) == 0 && name.find_first_of("_(", prefix.size()) == prefix.size();
        if (!own) continue;
        const fs::file_time_type time = entry.last_write_time(failure);
        if (newest.empty() || time >= newestTime) {
            newest = entry.path().string();
            newestTime = time;
        }
    }
    return newest;
}
