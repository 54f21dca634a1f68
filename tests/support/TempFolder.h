// A folder of a test's own, gone at the end.
#pragma once

#include <stdlib.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>
#include <vector>

class TempFolder {
public:
    TempFolder() { path = mkdtemp((std::filesystem::temp_directory_path() / "test-XXXXXX").string().data()); }
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;
    ~TempFolder() { std::filesystem::remove_all(path); }

    std::string File(const std::string& name) const { return path + "/" + name; }

    // The names of the files, in their order.
    std::vector<std::string> Names() const {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(path)) {
            names.push_back(entry.path().filename().string());
        }
        std::sort(names.begin(), names.end());
        return names;
    }

    // Makes the file, and returns its path.
    std::string Write(const std::string& name, std::string_view text) const {
        std::ofstream(File(name), std::ios::binary) << text;
        return File(name);
    }

    std::string path;
};
