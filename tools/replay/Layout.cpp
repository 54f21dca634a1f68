#include "tools/replay/Layout.h"

#include <filesystem>

std::string InstallationFolder() {
    std::error_code error;
    const std::filesystem::path program = std::filesystem::read_symlink("/proc/self/exe", error);
    return error ? "." : program.parent_path().parent_path().string();
}
