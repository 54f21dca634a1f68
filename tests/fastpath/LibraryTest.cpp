// The plug-in's file as the loader sees it: what it exports, what it needs, where it looks for that.
#include <elf.h>
#include <gtest/gtest.h>
#include <link.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <vector>

namespace {

class ElfFile {
public:
    explicit ElfFile(const std::string& path) {
        std::ifstream file(path, std::ios::binary);
        bytes.assign(std::istreambuf_iterator<char>(file), {});
        if (bytes.size() < sizeof(ElfW(Ehdr))) return;
        const auto* header = At<ElfW(Ehdr)>(0);
        sections.assign(At<ElfW(Shdr)>(header->e_shoff), At<ElfW(Shdr)>(header->e_shoff) + header->e_shnum);
    }

    std::set<std::string> Exports() const {
        std::set<std::string> names;
        Each<ElfW(Sym)>(SHT_DYNSYM, [&](const ElfW(Sym) & symbol, const char* strings) {
            if (symbol.st_shndx != SHN_UNDEF && symbol.st_name != 0) names.insert(strings + symbol.st_name);
        });
        return names;
    }

    // The texts of the dynamic entries with that tag.
    std::set<std::string> Dynamic(long tag) const {
        std::set<std::string> texts;
        Each<ElfW(Dyn)>(SHT_DYNAMIC, [&](const ElfW(Dyn) & entry, const char* strings) {
            if (static_cast<long>(entry.d_tag) == tag) texts.insert(strings + entry.d_un.d_val);
        });
        return texts;
    }

private:
    template <typename T>
    const T* At(size_t offset) const {
        return reinterpret_cast<const T*>(bytes.data() + offset);
    }
    template <typename T, typename Visit>
    void Each(unsigned type, Visit visit) const {
        for (const auto& section : sections) {
            if (section.sh_type != type) continue;
            const char* const strings = bytes.data() + sections[section.sh_link].sh_offset;
            const T* const first = At<T>(section.sh_offset);
            std::for_each(first, first + section.sh_size / sizeof(T), [&](const T& each) { visit(each, strings); });
        }
    }

    std::vector<char> bytes;
    std::vector<ElfW(Shdr)> sections;
};

const char kPlugin[] = BUILD_FOLDER "/lib/vchan_plugins/libusbRedirectionClient.so";

TEST(LibraryTest, ExportsItsTenFunctionsAndNothingElse) {
    EXPECT_EQ(ElfFile(kPlugin).Exports(),
              (std::set<std::string>{
                  "QSCService_PluginSetStartupArgs", "QSCService_PluginGetTokenName", "QSCService_PluginInit",
                  "QSCService_PluginExit", "QSCService_PluginCreateInstance", "QSCService_PluginDestroyInstance",
                  "QSCUsbRedirectionPlugin_Init", "QSCUsbRedirectionPlugin_Exit",
                  "QSCUsbRedirectionPlugin_SetUsbdInitDone", "QSCUsbRedirectionPlugin_SetUsbdDevicesFilterStatus"}));
}

TEST(LibraryTest, FindsTheDaemonByItsRunPath) {
    const ElfFile plugin(kPlugin);
    EXPECT_EQ(plugin.Dynamic(DT_NEEDED).count("libvelmora-usbd.so"), 1u);
    std::set<std::string> paths = plugin.Dynamic(DT_RUNPATH);
    paths.merge(plugin.Dynamic(DT_RPATH));
    EXPECT_EQ(paths, (std::set<std::string>{"$ORIGIN/../..:$ORIGIN/../usb"}));
}

}  // namespace
