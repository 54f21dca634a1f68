#include "logging/ConfigLookup.h"

#include <pwd.h>
#include <unistd.h>

#include <optional>

#include "tests/logging/LogSupport.h"
#include "tests/support/LogCapture.h"

namespace {

// Gives a variable of the environment another value, none for null, until the end of the scope.
class Variable {
public:
    Variable(const char* name, const char* value) : name(name) {
        if (const char* const before = std::getenv(name)) saved = before;
        Set(value);
    }
    Variable(const Variable&) = delete;
    Variable& operator=(const Variable&) = delete;
    ~Variable() { Set(saved ? saved->c_str() : nullptr); }

    void Set(const char* value) const { value ? setenv(name, value, 1) : unsetenv(name); }

private:
    const char* const name;
    std::optional<std::string> saved;
};

// The files of a list, by their texts. One without a text doesn't exist.
std::vector<std::string> MakeFiles(const TempFolder& folder, const std::vector<const char*>& texts) {
    std::vector<std::string> files;
    for (size_t i = 0; i < texts.size(); ++i) {
        files.push_back(folder.File("config" + std::to_string(i)));
        std::filesystem::remove(files.back());
        if (texts[i]) WriteText(files.back(), texts[i]);
    }
    return files;
}

class ConfigLookupTest : public LoggingTest {
protected:
    TempFolder folder;
};

TEST_F(ConfigLookupTest, TheUsersFileStandsFirst) {
    const Variable home("HOME", "/home/someone");
    const passwd* const entry = getpwuid(getuid());
    const char* const ofEntry = entry ? entry->pw_dir : nullptr;
    for (const auto& [value, used] :
         {std::pair<const char*, const char*>{"/home/someone", "/home/someone"}, {"", ofEntry}, {nullptr, ofEntry}}) {
        home.Set(value);
        std::vector<std::string> expected{"before"};
        if (used) expected.push_back(std::string(used) + "/.corvex/config");
        expected.insert(expected.end(), {"/usr/lib/corvex/config", "/etc/corvex/config"});
        std::vector<std::string> files{"before"};
        StringUtils::GetConfigFiles(files, true);
        EXPECT_EQ(files, expected);
    }
}

TEST_F(ConfigLookupTest, TheFirstNumberThatIsNotZeroCounts) {
    struct Case {
        std::vector<const char*> texts;
        std::vector<std::pair<int, size_t>> told;  // the numbers, and their files; the last one counts
    };
    for (const Case& c : {Case{{nullptr, "S.other = 1", "T.key = 1"}, {}},
                          {{"S.key = 3", "S.key = 4", "S.key = 5"}, {{3, 0}}},
                          {{"S.key = 0", nullptr, "S.key = 5"}, {{0, 0}, {5, 2}}},
                          {{"S.key = 0", "S.key = 0", "S.key = 0"}, {{0, 0}, {0, 1}, {0, 2}}},
                          {{nullptr, "s.key = 8", nullptr}, {{8, 1}}},
                          {{"S.key = -1", "S.key = 6", nullptr}, {{6, 1}}},
                          {{"S.key = -1", "S.key =", "S.KEY = 6"}, {}},
                          {{"S.key = many", "S.key = 6", nullptr}, {{0, 0}, {6, 1}}}}) {
        const std::vector<std::string> files = MakeFiles(folder, c.texts);
        const LogCapture capture(kLogTrace);
        UINT32 value = 77;
        EXPECT_EQ(StringUtils::GetConfigValueOf(files, "S", "key", &value), !c.told.empty());
        EXPECT_EQ(value, c.told.empty() ? 77 : static_cast<UINT32>(c.told.back().first));
        std::vector<std::string> lines;
        for (const auto& [number, file] : c.told) {
            lines.push_back("Found value=" + std::to_string(number) + " for setting S.key, in " + files[file] +
                            " file.\n");
        }
        EXPECT_EQ(capture.Texts(kLogTrace), lines);
    }
}

TEST_F(ConfigLookupTest, ReadsTheFileInTheHomeFolder) {
    const Variable home("HOME", folder.path.c_str());
    std::filesystem::create_directory(folder.File(".corvex"));
    WriteText(folder.File(".corvex/config"), "Look.Up.onlyHere = 42\n");
    UINT32 value = 0;
    EXPECT_TRUE(StringUtils::GetConfigValue("look.up", "onlyHere", &value, false));
    EXPECT_EQ(value, 42u);
    EXPECT_FALSE(StringUtils::GetConfigValue("look.up", "nowhere", &value, true));
    EXPECT_EQ(value, 42u);
}

TEST_F(ConfigLookupTest, TheLastFileChoosesTheChannel) {
    struct Case {
        std::vector<const char*> texts;
        const char* setting;
    };
    for (const Case& c : {Case{{nullptr, nullptr, nullptr}, "auto"},
                          {{"Velmora.UseVlmChannel = true", "velmora.UseVlmChannel = False", nullptr}, "False"},
                          {{"Velmora.UseVlmChannel = a", "Velmora.UseVlmChannel = b", "Velmora.UseVlmChannel=c"}, "c"},
                          {{"Velmora.UseVlmChannel = a", nullptr, "Velmora.UseVlmChannel ="}, "a"},
                          {{"Velmora.useVlmChannel = a", nullptr, "Other.UseVlmChannel = b"}, "auto"}}) {
        EXPECT_EQ(ReadVlmChannelSetting(MakeFiles(folder, c.texts)), c.setting);
    }
}

TEST_F(ConfigLookupTest, TheClientsVersionDecidesForAuto) {
    const std::pair<const char*, bool> versions[] = {
        {nullptr, false}, {"", false},      {"8.", false},   {"8.13", false},  {"8.14", true},
        {"9.0", true},    {"10.1", true},   {"7.99", false}, {"8.14.2", true}, {"8.9", false},
        {"x8.14", false}, {"8 .14", false}, {"-9.1", false}, {"8.-1", false},  {"9.0 beta", true},
        {"08.014", true}, {"9", false},     {"8,14", false}, {" 8.14", true},  {"0.14", false},
    };
    for (const auto& [version, expected] : versions) {
        EXPECT_EQ(UseVlmChannelFor("Auto", version), expected) << (version ? version : "none");
        EXPECT_TRUE(UseVlmChannelFor("TRUE", version));
        for (const char* const setting : {"false", "", "1", "yes"}) EXPECT_FALSE(UseVlmChannelFor(setting, version));
    }
}

// The one test that calls it: the setting stays for the rest of the process.
TEST_F(ConfigLookupTest, TheSettingIsReadOnceTheVersionEachTime) {
    if (access("/usr/lib/corvex/config", F_OK) == 0 || access("/etc/corvex/config", F_OK) == 0) {
        GTEST_SKIP() << "the system's own files decide";
    }
    const Variable home("HOME", folder.path.c_str());
    const Variable version("VLM_CLIENT_VERSION", "8.14");
    std::filesystem::create_directory(folder.File(".corvex"));
    WriteText(folder.File(".corvex/config"), "Velmora.UseVlmChannel = AUTO\n");
    EXPECT_TRUE(UseVlmChannel());
    WriteText(folder.File(".corvex/config"), "Velmora.UseVlmChannel = false\n");
    EXPECT_TRUE(UseVlmChannel());
    version.Set("8.13");
    EXPECT_FALSE(UseVlmChannel());
    version.Set(nullptr);
    EXPECT_FALSE(UseVlmChannel());
}

}  // namespace
