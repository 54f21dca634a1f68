#include "tools/replay/Layout.h"

#include <filesystem>

std::string ProgramPath() {
    std::error_code error;
    return std::filesystem::read_symlink("/proc/self/exe", error).string();
}

std::string InstallationFolder() {
    const std::filesystem::path program = ProgramPath();
    return program.empty() ? "." : program.parent_path().parent_path().string();
}
