#include "logging/ConfigSettingsReader.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <thread>

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

class ConfigSettingsReaderTest : public LoggingTest {
protected:
    // A file that was changed that long before the test began.
    void Write(const std::string& text, int64 age) {
        WriteText(path, text);
        const timespec times[2] = {{begin - age, 0}, {begin - age, 0}};
        ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
    }
    RCPtr<ConfigSettingsReader> Attach() {
        logger = MakeLogger();
        return new ConfigSettingsReader(logger.Get(), kSection, path);
    }

    TempFolder folder;
    const std::string path = folder.File("config");
    const time_t begin = time(nullptr);
    RCPtr<Logger> logger;
};

TEST_F(ConfigSettingsReaderTest, TakesTheLinesOfItsSection) {
    const std::tuple<std::string, std::string, std::string> cases[] = {
        {"Test.logger.key = value", "key", "value"},
        {" \t Test.logger.key \t =\v value \r\n", "key", "value"},
        {"tEST.LOGGER.key = v", "key", "v"},
        {"Test.logger. key = v", "key", "v"},
        {"Test.logger.key = v", "KEY", "(none)"},
        {"Test.logger.key = a = b  c ", "key", "a = b  c"},
        {"Test.logger.key == v", "key", "= v"},
        {"Test.logger.key = 1\nTest.logger.key = 2\n", "key", "2"},
        {"Test.logger.key = 1\nTest.logger.key =\n", "key", "1"},
        {"Test.logger.key =", "key", "(none)"},
        {"Test.logger.key", "key", "(none)"},
        {"Test.logger. = v", "", "(none)"},
        {"= v", "", "(none)"},
        {"key = v", "key", "(none)"},
        {"Test.key = v", "key", "(none)"},
        {"Test.logger2.key = v", "key", "(none)"},
        {"Test.logger.more.key = v", "key", "(none)"},
        {"Test.logger.more.key = v", "more.key", "(none)"},
        {"# Test.logger.key = v", "key", "(none)"},
        {"\n\n=\n.\n.=\n Test.logger.key = v", "key", "v"},
        {"", "key", "(none)"},
    };
    for (const auto& [text, key, value] : cases) EXPECT_EQ(ValueOf(ReaderOf(text), key), value) << text;
    EXPECT_EQ(ValueOf(ReaderOf("Plain.key = v", "plain"), "key"), "v");
    EXPECT_EQ(ValueOf(ReaderOf(".key = v", ""), "key"), "v");
}

TEST_F(ConfigSettingsReaderTest, ReadsNumbers) {
    constexpr uint32_t kNone = 77;  // no number there
    for (const auto& [text, number] : {std::pair<std::string, uint32_t>{"5", 5},
                                       {"+7", 7},
                                       {"010", 10},
                                       {"0x10", 0},
                                       {"12 MB", 12},
                                       {"many", 0},
                                       {"4294967294", 4294967294u},
                                       {"4294967295", kNone},
                                       {"-1", kNone},
                                       {"99999999999999999999999", kNone},
                                       {"", kNone}}) {
        uint32_t value = kNone;
        EXPECT_EQ(ReaderOf("Test.logger.key = " + text)->GetUInt("key", &value, true), number != kNone) << text;
        EXPECT_EQ(value, number) << text;
    }
}

TEST_F(ConfigSettingsReaderTest, ReadsTruthValues) {
    for (const auto& [text, found, expected] : {std::tuple<std::string, bool, bool>{"true", true, true},
                                                {"TRUE", true, true},
                                                {"fAlSe", true, false},
                                                {"1", false, false},
                                                {"yes", false, false},
                                                {"tru", false, false},
                                                {"truely", false, false},
                                                {"", false, false}}) {
        for (const bool before : {true, false}) {
            bool value = before;
            EXPECT_EQ(ReaderOf("Test.logger.key=" + text)->GetBool("key", &value, true), found) << text;
            EXPECT_EQ(value, found ? expected : before) << text;
        }
    }
}

TEST_F(ConfigSettingsReaderTest, EachReadingStartsAnew) {
    Write("Test.logger.a = 1\nTest.logger.b = 2\n", 1000);
    const RCPtr<ConfigSettingsReader> reader(new ConfigSettingsReader(kSection, path));
    Write("Test.logger.a =\nTest.logger.b = 3\n", 500);
    EXPECT_EQ(ValueOf(reader, "a") + ValueOf(reader, "b"), "12");
    EXPECT_TRUE(reader->ReadFile());
    EXPECT_EQ(ValueOf(reader, "a") + ValueOf(reader, "b"), "(none)3");
    std::filesystem::remove(path);
    EXPECT_FALSE(reader->ReadFile());
    EXPECT_EQ(ValueOf(reader, "b"), "(none)");
}

TEST_F(ConfigSettingsReaderTest, AnotherTimeOfTheFileCountsAsAChange) {
    Write("Test.logger.key = 1", 1000);
    const RCPtr<ConfigSettingsReader> reader = Attach();
    const LogCapture capture(kLogDebug);
    struct Step {
        const char* file;  // null for none
        int64 age;
        bool timedOut;
        const char* value;
        size_t changes;  // told so far
    };
    for (const Step& step : {Step{"2", 1000, true, "1", 0},  // the same second
                             {"2", 1100, true, "2", 1},      // an earlier time is another one
                             {"2", 1100, true, "2", 1},
                             {"3", 900, false, "2", 1},  // taken note of
                             {"3", 900, true, "2", 1},   // noted before
                             {nullptr, 0, true, "2", 1},
                             {"4", 800, true, "4", 2}}) {
        if (step.file) {
            Write(std::string("Test.logger.key = ") + step.file, step.age);
        } else {
            std::filesystem::remove(path);
        }
        reader->CheckFile(step.timedOut);
        EXPECT_EQ(ValueOf(reader, "key"), step.value) << step.age;
        EXPECT_EQ(capture.Texts(kLogDebug), std::vector<std::string>(step.changes, path + " changed - rereading file"));
    }
}

TEST_F(ConfigSettingsReaderTest, AFileThatAppearsLaterIsReadAndAnUnreadableOneLeavesTheLoggerAlone) {
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    const RCPtr<ConfigSettingsReader> reader = Attach();
    EXPECT_EQ(ValueOf(reader, "logLevel"), "(none)");
    std::filesystem::remove(path);
    logger->AddWriter(kStdOutWriter);
    ASSERT_TRUE(logger->Start());
    Write("Test.logger.logLevel = TRACE\nTest.logger.useLocalTime = false", 1000);
    reader->CheckFile(true);
    EXPECT_TRUE(logger->GetLevel() == kLogTrace && !logger->UsesLocalTime()) << "applied as well";
    std::filesystem::remove(path);
    std::filesystem::create_directory(path);
    reader->CheckFile(true);
    EXPECT_EQ(ValueOf(reader, "logLevel"), "(none)");
    EXPECT_TRUE(logger->GetLevel() == kLogTrace && !logger->UsesLocalTime());
}

TEST_F(ConfigSettingsReaderTest, WatchesOnlyForALogger) {
    const RCPtr<KxPollThread> thread = LoggerManager::GetPollThread();
    while (thread->GetItemCount() != 0) std::this_thread::yield();  // the step of its start is still an item
    {
        const RCPtr<ConfigSettingsReader> lone(new ConfigSettingsReader(nullptr, kSection, path));
        EXPECT_EQ(thread->GetItemCount(), 0u);
        const RCPtr<ConfigSettingsReader> attached = Attach();
        EXPECT_EQ(thread->GetItemCount(), 1u);
    }
    EXPECT_EQ(thread->GetItemCount(), 0u);
}

}  // namespace
