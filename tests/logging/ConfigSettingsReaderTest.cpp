#include "logging/ConfigSettingsReader.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <map>

#include "runtime/KxPollThread.h"
#include "tests/logging/LogSupport.h"
#include "tests/support/LogCapture.h"

namespace {

const char kSection[] = "Test.logger";

RCPtr<ConfigSettingsReader> ReaderOf(const std::string& text, const std::string& section = kSection) {
    const RCPtr<ConfigSettingsReader> reader(new ConfigSettingsReader(section, "/nonexistent/config"));
    std::istringstream stream(text);
    reader->Parse(stream);
    return reader;
}

// The value of key, or "(none)".
std::string ValueOf(const RCPtr<ConfigSettingsReader>& reader, const std::string& key) {
    std::string value = "(none)";
    const bool found = reader->GetString(key, 0, value, true);
    EXPECT_EQ(found, value != "(none)");
    return value;
}

void SetModifiedTime(const std::string& path, time_t seconds) {
    const timespec times[2] = {{seconds, 0}, {seconds, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
}

class ConfigSettingsReaderTest : public LoggingTest {
protected:
    void Write(const std::string& text, time_t modified) {
        WriteText(path, text);
        SetModifiedTime(path, modified);
    }
    RCPtr<ConfigSettingsReader> Attach() {
        logger = MakeLogger();
        return new ConfigSettingsReader(logger.Get(), kSection, path);
    }

    TempFolder folder;
    const std::string path = folder.File("config");
    RCPtr<Logger> logger;
};

TEST_F(ConfigSettingsReaderTest, TakesTheLinesOfItsSection) {
    struct Case {
        const char* text;
        const char* key;
        const char* value;
    };
    const Case cases[] = {
        {"Test.logger.key = value", "key", "value"},
        {"Test.logger.key=value\n", "key", "value"},
        {" \t Test.logger.key \t =\v value \r\n", "key", "value"},
        {"tEST.LOGGER.key = v", "key", "v"},
        {"Test.logger. key = v", "key", "v"},
        {"Test.logger.key = v", "KEY", "(none)"},
        {"Test.logger.KEY = v", "key", "(none)"},
        {"Test.logger.key = a = b  c ", "key", "a = b  c"},
        {"Test.logger.key == v", "key", "= v"},
        {"Test.logger.key = 1\nTest.logger.key = 2\n", "key", "2"},
        {"Test.logger.key = 1\ntest.LOGGER.key = 2\n", "key", "2"},
        {"Test.logger.key = 1\nTest.logger.key =\n", "key", "1"},
        {"Test.logger.key =", "key", "(none)"},
        {"Test.logger.key = \t ", "key", "(none)"},
        {"Test.logger.key", "key", "(none)"},
        {"Test.logger. = v", "", "(none)"},
        {"= v", "", "(none)"},
        {"key = v", "key", "(none)"},
        {".key = v", "key", "(none)"},
        {"logger.key = v", "key", "(none)"},
        {"Test.key = v", "key", "(none)"},
        {"Test.logger2.key = v", "key", "(none)"},
        {"Test.logger.more.key = v", "key", "(none)"},
        {"Test.logger.more.key = v", "more.key", "(none)"},
        {"Test.logge.key = v", "key", "(none)"},
        {"# Test.logger.key = v", "key", "(none)"},
        {"\n\n=\n.\n.=\n Test.logger.key = v", "key", "v"},
        {"", "key", "(none)"},
    };
    for (const Case& c : cases) EXPECT_EQ(ValueOf(ReaderOf(c.text), c.key), c.value) << c.text;
    EXPECT_EQ(ValueOf(ReaderOf("Plain.key = v", "plain"), "key"), "v");
    EXPECT_EQ(ValueOf(ReaderOf(".key = v", ""), "key"), "v");
}

TEST_F(ConfigSettingsReaderTest, AValueHasNoSecondPlace) {
    const RCPtr<ConfigSettingsReader> reader = ReaderOf("Test.logger.key = v");
    for (const int index : {-1, 1}) {
        std::string value = "kept";
        EXPECT_FALSE(reader->GetString("key", index, value, true));
        EXPECT_EQ(value, "kept");
    }
}

TEST_F(ConfigSettingsReaderTest, ReadsNumbers) {
    struct Case {
        const char* text;
        bool found;
        uint32_t value;
    };
    for (const Case& c : {Case{"5", true, 5},
                          {"0", true, 0},
                          {"+7", true, 7},
                          {"010", true, 10},
                          {"0x10", true, 0},
                          {"12 MB", true, 12},
                          {"many", true, 0},
                          {"4294967294", true, 4294967294u},
                          {"4294967295", false, 0},
                          {"-1", false, 0},
                          {"4294967296", false, 0},
                          {"99999999999999999999999", false, 0},
                          {"", false, 0}}) {
        uint32_t value = 77;
        const RCPtr<ConfigSettingsReader> reader = ReaderOf(std::string("Test.logger.key = ") + c.text);
        EXPECT_EQ(reader->GetUInt("key", &value, true), c.found) << c.text;
        EXPECT_EQ(value, c.found ? c.value : 77) << c.text;
    }
}

TEST_F(ConfigSettingsReaderTest, ReadsTruthValues) {
    const std::map<std::string, int> cases = {{"true", 1},  {"TRUE", 1},    {"True", 1}, {"false", 0},
                                              {"FALSE", 0}, {"fAlSe", 0},   {"1", -1},   {"0", -1},
                                              {"yes", -1},  {"truely", -1}, {"tru", -1}, {"", -1}};
    for (const auto& [text, expected] : cases) {
        for (const bool before : {true, false}) {
            bool value = before;
            const RCPtr<ConfigSettingsReader> reader = ReaderOf("Test.logger.key=" + text);
            EXPECT_EQ(reader->GetBool("key", &value, true), expected >= 0) << text;
            EXPECT_EQ(value, expected >= 0 ? expected == 1 : before) << text;
        }
    }
}

TEST_F(ConfigSettingsReaderTest, TellsWhereAKeyComesFrom) {
    const RCPtr<ConfigSettingsReader> reader(new ConfigSettingsReader("Section", "/etc/corvex/config"));
    EXPECT_EQ(reader->Describe("logLevel"), "/etc/corvex/config [Section.logLevel]");
    EXPECT_STREQ(reader->GetName(), "ConfigFileReader");
    EXPECT_TRUE(reader->IsFileReader());
}

TEST_F(ConfigSettingsReaderTest, EachReadingStartsAnew) {
    Write("Test.logger.a = 1\nTest.logger.b = 2\n", 1000);
    const RCPtr<ConfigSettingsReader> reader(new ConfigSettingsReader(kSection, path));
    EXPECT_EQ(ValueOf(reader, "a") + ValueOf(reader, "b"), "12");
    WriteText(path, "Test.logger.a =\nTest.logger.b = 3\n");
    EXPECT_EQ(ValueOf(reader, "b"), "2");
    EXPECT_TRUE(reader->ReadFile());
    EXPECT_EQ(ValueOf(reader, "a") + ValueOf(reader, "b"), "(none)3");
    std::filesystem::remove(path);
    EXPECT_FALSE(reader->ReadFile());
    EXPECT_EQ(ValueOf(reader, "b"), "(none)");
    std::filesystem::create_directory(path);
    EXPECT_FALSE(reader->ReadFile()) << "it opens, but can't be read";
}

TEST_F(ConfigSettingsReaderTest, AnotherTimeOfTheFileCountsAsAChange) {
    Write("Test.logger.key = 1", 1000);
    const RCPtr<ConfigSettingsReader> reader = Attach();
    EXPECT_EQ(ValueOf(reader, "key"), "1");
    LogCapture capture(kLogDebug);
    const std::string line = path + " changed - rereading file";

    Write("Test.logger.key = 2", 1000);
    reader->CheckFile(true);
    EXPECT_EQ(ValueOf(reader, "key"), "1") << "the same second";
    EXPECT_EQ(capture.Count(line), 0u);

    SetModifiedTime(path, 900);
    reader->CheckFile(true);
    EXPECT_EQ(ValueOf(reader, "key"), "2") << "an earlier time is another one";
    EXPECT_EQ(capture.Count(line), 1u);
    EXPECT_TRUE(capture.Has(kLogDebug, line));
    reader->CheckFile(true);
    EXPECT_EQ(capture.Count(line), 1u);

    Write("Test.logger.key = 3", 1100);
    reader->CheckFile(false);
    EXPECT_EQ(ValueOf(reader, "key"), "2") << "taken note of";
    reader->CheckFile(true);
    EXPECT_EQ(ValueOf(reader, "key"), "2") << "noted before";
    EXPECT_EQ(capture.Count(line), 1u);

    std::filesystem::remove(path);
    reader->CheckFile(true);
    EXPECT_EQ(ValueOf(reader, "key"), "2") << "gone is no change";
    EXPECT_EQ(capture.Count(line), 1u);
    Write("Test.logger.key = 4", 1200);
    reader->CheckFile(true);
    EXPECT_EQ(ValueOf(reader, "key"), "4") << "back";
    EXPECT_EQ(capture.Count(line), 2u);
}

TEST_F(ConfigSettingsReaderTest, AFileThatAppearsLaterIsRead) {
    const RCPtr<ConfigSettingsReader> reader = Attach();
    EXPECT_EQ(ValueOf(reader, "logLevel"), "(none)");
    Write("Test.logger.logLevel = TRACE", 1000);
    reader->CheckFile(true);
    EXPECT_EQ(ValueOf(reader, "logLevel"), "TRACE");
    EXPECT_EQ(logger->GetLevel(), kLogTrace) << "applied as well";
}

TEST_F(ConfigSettingsReaderTest, AnUnreadableFileLeavesTheLoggerAlone) {
    Write("Test.logger.logLevel = TRACE\nTest.logger.useLocalTime = false", 1000);
    const RCPtr<ConfigSettingsReader> reader = Attach();
    logger->ApplySettings(reader);
    logger->AddWriter(kStdOutWriter);
    ASSERT_TRUE(logger->Start());
    std::filesystem::remove(path);
    std::filesystem::create_directory(path);
    SetModifiedTime(path, 2000);
    reader->CheckFile(true);
    EXPECT_EQ(ValueOf(reader, "logLevel"), "(none)");
    EXPECT_EQ(logger->GetLevel(), kLogTrace);
    EXPECT_FALSE(logger->UsesLocalTime());
}

TEST_F(ConfigSettingsReaderTest, WatchesOnlyForALogger) {
    Write("Test.logger.key = 1", 1000);
    const size_t before = LoggerManager::GetPollThread()->GetItemCount();
    {
        const RCPtr<ConfigSettingsReader> lone(new ConfigSettingsReader(nullptr, kSection, path));
        EXPECT_EQ(LoggerManager::GetPollThread()->GetItemCount(), before);
        EXPECT_EQ(ValueOf(lone, "key"), "1");
        lone->CheckFile(true);
        const RCPtr<ConfigSettingsReader> attached = Attach();
        EXPECT_EQ(LoggerManager::GetPollThread()->GetItemCount(), before + 1);
    }
    EXPECT_EQ(LoggerManager::GetPollThread()->GetItemCount(), before);
}

}  // namespace
