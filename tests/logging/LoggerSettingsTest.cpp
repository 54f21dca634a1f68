// What each key does to a logger, at the start and while it runs.
#include <fcntl.h>
#include <sys/stat.h>

#include <functional>

#include "logging/ConfigSettingsReader.h"
#include "runtime/KxPollThread.h"
#include "tests/logging/LogSupport.h"

namespace {

using Lines = std::vector<std::string>;

// The keys under their section, which is the same in all of these tests.
std::string ConfigText(const Lines& keys) {
    std::string text;
    for (const std::string& key : keys) text += "Test.logger." + key + "\n";
    return text;
}

// Runs what the watcher does where the watcher does it.
void OnLoggerThread(const std::function<void()>& run) {
    KxEvent done(true, false);
    LoggerManager::GetPollThread()->AddTask("Test", static_cast<KxEvent*>(nullptr), 0, [&](bool) {
        run();
        done.Set();
        return false;
    });
    ASSERT_EQ(done.Wait(10000), kWaitSignaled);
}

class LoggerSettingsTest : public LoggingTest {
protected:
    LoggerSettingsTest() : savedErrors(std::cerr.rdbuf(errors.rdbuf())) {}
    ~LoggerSettingsTest() override {
        LoggerManager::Shutdown();
        std::cerr.rdbuf(savedErrors);
    }

    // A default logger of its own for each call, not started, that those keys are for.
    RCPtr<Logger> Configure(const Lines& keys, int level = kLogInfo) {
        LoggerManager::Shutdown();
        logger = MakeLogger(level);
        Write(keys);
        EXPECT_TRUE(logger->AddConfigFile(path));
        return logger;
    }
    void AddWriters(std::initializer_list<int> types) {
        for (const int type : types) {
            if (type == kFileWriter) {
                AddFileWriter(logger, folder.path);
            } else {
                logger->AddWriter(type);
            }
        }
    }
    // From here on output holds only what comes after the start.
    void Start() {
        ASSERT_TRUE(logger->Start());
        reader = new ConfigSettingsReader(logger.Get(), "Test.logger", path);
        output.Clear();
    }
    // The file changes while the logger runs.
    void Change(const Lines& keys) {
        Write(keys);
        OnLoggerThread([&] { reader->CheckFile(true); });
    }
    void Write(const Lines& keys) {
        WriteText(path, ConfigText(keys));
        modified += 60;
        const timespec times[2] = {{modified, 0}, {modified, 0}};
        ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
    }

    std::string Property(int type, const std::string& key) {
        std::string value;
        const RCPtr<LogWriter> writer = logger->GetWriter(type);
        EXPECT_TRUE(writer && writer->GetProperty(key, value)) << key;
        return value;
    }
    // The texts of the change lines.
    static Lines ChangesIn(const std::string& text) {
        const std::string mark = " A ConfigFileReader: ";
        Lines changes;
        for (const std::string& line : SplitLines(text)) {
            const size_t at = line.find(mark);
            if (at != std::string::npos) changes.push_back(line.substr(at + mark.size()));
        }
        return changes;
    }
    Lines Changes() const { return ChangesIn(output.Text()); }

    TempFolder folder;
    TempFolder configFolder;
    const std::string path = configFolder.File("config");
    time_t modified = 1000;
    RCPtr<Logger> logger;
    RCPtr<ConfigSettingsReader> reader;
    std::ostringstream errors;
    std::streambuf* const savedErrors;
};

constexpr const char* kUnbuffered = "enableBuffering = false";

TEST_F(LoggerSettingsTest, TheLevelAtTheStart) {
    struct Case {
        Lines keys;
        int level;
    };
    for (const Case& c : {Case{{}, kLogWarn},
                          {{"logLevel = DEBUG"}, kLogDebug},
                          {{"logLevel = Debug  "}, kLogDebug},
                          {{"logLevel = always"}, kLogAlways},
                          {{"logLevel = verbose"}, kLogVerbose},
                          {{"logLevel = WARN"}, kLogWarn},
                          {{"logLevel = info"}, kLogInfo},
                          {{"logLevel = NEVER"}, kLogWarn},
                          {{"logLevel = chatty"}, kLogWarn},
                          {{"logLevel = 5"}, kLogWarn},
                          {{"logLevel ="}, kLogWarn},
                          {{"LOGLEVEL = DEBUG"}, kLogWarn}}) {
        Configure(c.keys, kLogWarn);
        AddWriters({kStdOutWriter});
        output.Clear();
        ASSERT_TRUE(logger->Start());
        EXPECT_EQ(logger->GetLevel(), c.level);
        EXPECT_EQ(gLogLevel.load(), c.level);
        EXPECT_EQ(Changes(), Lines());
        EXPECT_TRUE(Contains(output.Text(), std::string("Log Level: ") + LogLevelName(c.level) + " (read from " + path +
                                                " [Test.logger.logLevel])\n"));
    }
}

TEST_F(LoggerSettingsTest, TheLevelWhileRunning) {
    Configure({kUnbuffered, "logLevel = WARN"});
    AddWriters({kStdOutWriter});
    Start();
    const struct {
        const char* key;
        int level;
        const char* change;  // null for none
    } steps[] = {
        {"logLevel = DEBUG", kLogDebug, "logLevel changed to DEBUG"},
        {"logLevel = debug", kLogDebug, nullptr},
        {"logLevel = NEVER", kLogNever, "logLevel changed to NEVER"},
        {"logLevel = always", kLogAlways, "logLevel changed to ALWAYS"},
        {"logLevel = chatty", kLogNever, "logLevel changed to NEVER"},
        {"", kLogInfo, "logLevel changed to INFO"},
        {"logLevel =", kLogInfo, nullptr},
        {"logLevel = Error", kLogError, "logLevel changed to ERROR"},
    };
    for (const auto& step : steps) {
        output.Clear();
        Change({kUnbuffered, step.key});
        EXPECT_EQ(logger->GetLevel(), step.level) << step.key;
        EXPECT_EQ(gLogLevel.load(), step.level);
        EXPECT_EQ(Changes(), step.change ? Lines{step.change} : Lines()) << step.key;
        EXPECT_STREQ(logger->GetLevelName(), LogLevelName(step.level));
    }
}

TEST_F(LoggerSettingsTest, TheLevelWordIsTheDefaultLoggersOnly) {
    Configure({kUnbuffered, "logLevel = WARN"});
    AddWriters({kStdOutWriter});
    Start();
    const RCPtr<Logger> other = LoggerManager::CreateLogger("other", "Test", true);
    other->AddWriter(kStdOutWriter);
    ASSERT_TRUE(other->Start());
    output.Clear();
    Change({kUnbuffered, "logLevel = TRACE"});
    EXPECT_EQ(logger->GetLevel(), kLogTrace);
    EXPECT_EQ(gLogLevel.load(), kLogInfo);
    EXPECT_EQ(Changes(), Lines{"logLevel changed to TRACE"}) << "told by the default logger";
}

TEST_F(LoggerSettingsTest, LocalTime) {
    struct Case {
        Lines keys;
        bool before;
        bool local;
    };
    for (const Case& c : {Case{{}, true, true},
                          {{}, false, false},
                          {{"useLocalTime=false"}, true, false},
                          {{"useLocalTime = TRUE"}, false, true},
                          {{"useLocalTime = 1"}, false, false}}) {
        Configure(c.keys);
        AddWriters({kStdOutWriter});
        logger->SetUseLocalTime(c.before);
        ASSERT_TRUE(logger->Start());
        EXPECT_EQ(logger->UsesLocalTime(), c.local);
    }
    Configure({kUnbuffered, "useLocalTime = false"});
    AddWriters({kStdOutWriter});
    Start();
    const std::pair<const char*, Lines> steps[] = {
        {"useLocalTime = False", {}},
        {"", {"useLocalTime changed to TRUE"}},
        {"useLocalTime = true", {}},
        {"useLocalTime = false", {"useLocalTime changed to FALSE"}},
        {"useLocalTime = 0", {"useLocalTime changed to TRUE"}},
    };
    bool local = false;
    for (const auto& [key, changes] : steps) {
        output.Clear();
        Change({kUnbuffered, key});
        if (!changes.empty()) local = !local;
        EXPECT_EQ(logger->UsesLocalTime(), local) << key;
        EXPECT_EQ(Changes(), changes) << key;
    }
}

TEST_F(LoggerSettingsTest, BufferingAtTheStart) {
    struct Case {
        Lines keys;
        bool file;
        bool stdOut;
    };
    for (const Case& c : {Case{{}, true, false},
                          {{"enableBuffering = true"}, true, true},
                          {{"enableBuffering = false"}, false, false},
                          {{"enableBuffering = no"}, true, false}}) {
        Configure(c.keys);
        AddWriters({kFileWriter, kStdOutWriter});
        ASSERT_TRUE(logger->Start());
        EXPECT_EQ(logger->GetWriter(kFileWriter)->IsBuffering(), c.file);
        EXPECT_EQ(logger->GetWriter(kStdOutWriter)->IsBuffering(), c.stdOut);
    }
}

TEST_F(LoggerSettingsTest, BufferingWhileRunning) {
    Configure({});
    AddWriters({kFileWriter, kStdOutWriter});
    const RCPtr<LogWriter> file = logger->GetWriter(kFileWriter);
    const RCPtr<LogWriter> stdOut = logger->GetWriter(kStdOutWriter);
    Start();
    Change({});
    EXPECT_TRUE(file->IsBuffering() && stdOut->IsBuffering()) << "an absent key";
    Change({"enableBuffering = false"});
    EXPECT_FALSE(file->IsBuffering() || stdOut->IsBuffering());
    const Lines changes{"enableBuffering changed to TRUE", "enableBuffering changed to FALSE",
                        "enableBuffering changed to FALSE"};
    EXPECT_EQ(Changes(), changes) << "for each writer that differs";
    Change({"enableBuffering = false"});
    EXPECT_EQ(Changes(), changes);
    Change({"enableBuffering = maybe"});
    EXPECT_TRUE(file->IsBuffering() && stdOut->IsBuffering());
    LoggerManager::Shutdown();
    EXPECT_EQ(Changes().size(), changes.size() + 2);
}

struct Switch {
    int type;
    const char* key;
    const char* label;
};
constexpr Switch kSwitches[] = {
    {kFileWriter, "logEnabled", "FILE"},       {kSocketWriter, "logToSyslog", "SOCKET"},
    {kDebugWriter, "logToDebugView", "DEBUG"}, {kStdOutWriter, "logToStdout", "STDOUT"},
    {kStdErrWriter, "logToStderr", "STDERR"},
};

// Keys that make the new writers work, whichever they are.
Lines PlaceKeys(const std::string& folder) {
    return {"logDirectory = " + folder, "logRemoteAddress = 127.0.0.1", "logRemotePort = 9"};
}

TEST_F(LoggerSettingsTest, SwitchesMakeWritersAtTheStart) {
    for (const Switch& each : kSwitches) {
        struct Case {
            const char* value;  // null for no key
            bool mayCreate;
            bool made;
        };
        for (const Case& c : {Case{"true", true, true},
                              {"TRUE", true, true},
                              {"false", true, false},
                              {"1", true, false},
                              {nullptr, true, false},
                              {"true", false, false}}) {
            Lines keys = PlaceKeys(folder.path);
            if (c.value) keys.push_back(std::string(each.key) + " = " + c.value);
            Configure(keys);
            logger->SetAutoCreateWriters(c.mayCreate);
            output.Clear();
            EXPECT_EQ(logger->Start(), c.made) << each.key;
            ASSERT_EQ(logger->HasWriter(each.type), c.made) << each.key;
            EXPECT_EQ(Changes(), Lines());
            for (const Switch& other : kSwitches) EXPECT_EQ(logger->HasWriter(other.type), c.made && &other == &each);
            if (!c.made) continue;
            EXPECT_TRUE(logger->GetWriter(each.type)->IsEnabled());
        }
    }
}

TEST_F(LoggerSettingsTest, SwitchesActOnAWriterThatIsThereAtTheStart) {
    for (const Switch& each : kSwitches) {
        for (const bool before : {true, false}) {
            for (const char* const value : {"true", "false", "0", ""}) {
                Lines keys = PlaceKeys(folder.path);
                keys.push_back(std::string(each.key) + " = " + value);
                Configure(keys);
                AddWriters({each.type});
                logger->SetAutoCreateWriters(false);
                const RCPtr<LogWriter> writer = logger->GetWriter(each.type);
                writer->SetEnabled(before);
                output.Clear();
                EXPECT_TRUE(logger->Start());
                const std::string text = value;
                EXPECT_EQ(writer->IsEnabled(), text == "true" || (text != "false" && before)) << each.key << value;
                EXPECT_EQ(Changes(), Lines());
            }
        }
    }
}

TEST_F(LoggerSettingsTest, SwitchesWhileRunning) {
    for (const Switch& each : kSwitches) {
        Lines keys = PlaceKeys(folder.path);
        keys.push_back(kUnbuffered);
        Configure(keys);
        // What the writer on a stream that is looked at doesn't tell itself, another one does.
        AddWriters({each.type});
        const bool onOutput = each.type == kDebugWriter || each.type == kStdOutWriter;
        if (!onOutput) AddWriters({kDebugWriter});
        const RCPtr<LogWriter> writer = logger->GetWriter(each.type);
        Start();
        const std::string name = std::string(each.label) + " - " + each.key + " changed to ";
        Lines expected;
        const std::tuple<const char*, bool, const char*> steps[] = {
            {"", true, nullptr},       {" = true", true, nullptr},   {" = False", false, "FALSE"},
            {" = no", false, nullptr}, {" = false", false, nullptr}, {"", false, nullptr},
            {" = TRUE", true, "TRUE"},
        };
        for (const auto& [value, enabled, change] : steps) {
            Lines now = keys;
            if (*value) now.push_back(each.key + std::string(value));
            Change(now);
            EXPECT_EQ(writer->IsEnabled(), enabled) << each.key << value;
            if (change) expected.push_back(name + change);
        }
        EXPECT_EQ(Changes(), expected) << each.key;
    }
}

TEST_F(LoggerSettingsTest, AWriterThatIsNotThereIsNotMadeWhileRunning) {
    Configure({kUnbuffered});
    AddWriters({kStdOutWriter});
    Start();
    Lines keys = PlaceKeys(folder.path);
    keys.insert(keys.end(), {kUnbuffered, "logMaxNumFiles = 3"});
    for (const Switch& each : kSwitches) {
        if (each.type != kStdOutWriter) keys.push_back(std::string(each.key) + " = true");
    }
    Change(keys);
    for (const Switch& each : kSwitches) EXPECT_EQ(logger->HasWriter(each.type), each.type == kStdOutWriter);
    EXPECT_EQ(Changes(), Lines());
    EXPECT_EQ(folder.Names(), Lines());
}

TEST_F(LoggerSettingsTest, TheLineAboutASwitchOffReachesItsWriter) {
    for (const bool buffering : {false, true}) {
        const std::string mode = buffering ? "enableBuffering = true" : kUnbuffered;
        Configure({mode});
        const RCPtr<FileWriter> file = AddFileWriter(logger, folder.path);
        Start();
        const std::string current = file->GetCurrentPath();
        Logger::Log("Test()", kLogInfo, "before");
        Change({mode, "logEnabled = false"});
        const std::string off = ReadText(current);
        EXPECT_EQ(CountOf(off, "Test(): before\n"), 1u);
        EXPECT_EQ(ChangesIn(off), Lines{"FILE - logEnabled changed to FALSE"}) << mode;
        Logger::Log("Test()", kLogInfo, "meanwhile");
        EXPECT_EQ(ReadText(current), off);
        Change({mode, "logEnabled = true"});
        Logger::Log("Test()", kLogInfo, "after");
        LoggerManager::Shutdown();
        const std::string whole = ReadText(current);
        EXPECT_EQ(ChangesIn(whole), (Lines{"FILE - logEnabled changed to FALSE", "FILE - logEnabled changed to TRUE"}));
        EXPECT_EQ(CountOf(whole, "meanwhile"), 0u);
        EXPECT_EQ(CountOf(whole, "Test(): after\n"), 1u);
        std::filesystem::remove(current);
    }
}

struct FileKey {
    const char* key;
    const char* property;
    const char* initial;
    const char* limit;  // what is kept of 5000
};
constexpr FileKey kFileKeys[] = {
    {"logMaxDaysKept", "maxDaysKept", "7", "5000"},
    {"logMaxNumFiles", "maxNumFiles", "25", "5000"},
    {"logMinAgeInHours", "minAgeInHours", "2", "5000"},
    {"logMaxFileSizeMB", "maxFileSizeMB", "15", "1024"},
    {"logMaxRollingFiles", "maxRollingFiles", "4", "1000"},
    {"logDiskThresholdLowMB", "diskThresholdLowMB", "200", "5000"},
    {"logDiskThresholdHighMB", "diskThresholdHighMB", "500", "5000"},
};

TEST_F(LoggerSettingsTest, FileKeysAtTheStart) {
    for (const FileKey& each : kFileKeys) {
        const std::pair<const char*, const char*> values[] = {
            {"", each.initial}, {"-1", each.initial}, {"5", "5"}, {"0", "0"}, {"many", "0"}, {"5000", each.limit},
        };
        for (const auto& [value, kept] : values) {
            Configure({std::string(each.key) + " = " + value});
            AddWriters({kFileWriter, kStdOutWriter});
            output.Clear();
            ASSERT_TRUE(logger->Start());
            EXPECT_EQ(Property(kFileWriter, each.property), kept) << each.key << " = " << value;
            EXPECT_EQ(Changes(), Lines());
            for (const FileKey& other : kFileKeys) {
                if (&other == &each) continue;
                EXPECT_EQ(Property(kFileWriter, other.property), other.initial);
            }
        }
    }
}

TEST_F(LoggerSettingsTest, FileKeysWhileRunning) {
    for (const FileKey& each : kFileKeys) {
        Configure({kUnbuffered});
        AddWriters({kFileWriter, kStdOutWriter});
        Start();
        const std::tuple<const char*, const char*, const char*> steps[] = {
            {each.initial, each.initial, nullptr},
            {"5", "5", "5"},
            {"5", "5", nullptr},
            {"", "5", nullptr},
            {"4294967295", "5", nullptr},
            {"5000", each.limit, "5000"},  // as given
            {"many", "0", "0"},
        };
        for (const auto& [value, kept, told] : steps) {
            output.Clear();
            Change({kUnbuffered, std::string(each.key) + " = " + value});
            EXPECT_EQ(Property(kFileWriter, each.property), kept) << each.key << " = " << value;
            const Lines expected = told ? Lines{"FILE - " + std::string(each.key) + " changed to " + told} : Lines();
            EXPECT_EQ(Changes(), expected) << each.key << " = " << value;
        }
    }
}

TEST_F(LoggerSettingsTest, AllKeysOfOneChangeAreToldInOrder) {
    Configure({kUnbuffered});
    AddWriters({kFileWriter, kStdOutWriter});
    Start();
    Change({"logToStdout = true", "logDiskThresholdHighMB = 9", "logMaxFileSizeMB = 9", "logMaxDaysKept = 9",
            "useLocalTime = false", "logLevel = TRACE", kUnbuffered, "logMaxNumFiles = 5", "logEnabled = false",
            "logDiskThresholdLowMB = 9", "logMaxRollingFiles = 9", "logMinAgeInHours = 9"});
    EXPECT_EQ(Changes(),
              (Lines{"logLevel changed to TRACE", "useLocalTime changed to FALSE", "FILE - logEnabled changed to FALSE",
                     "FILE - logMaxDaysKept changed to 9", "FILE - logMaxNumFiles changed to 5",
                     "FILE - logMinAgeInHours changed to 9", "FILE - logMaxFileSizeMB changed to 9",
                     "FILE - logMaxRollingFiles changed to 9", "FILE - logDiskThresholdLowMB changed to 9",
                     "FILE - logDiskThresholdHighMB changed to 9"}));
}

TEST_F(LoggerSettingsTest, TheFolderIsTakenAtTheStartOnly) {
    const TempFolder other;
    Configure({kUnbuffered, "logEnabled = true", "logDirectory = " + folder.path});
    AddWriters({kStdOutWriter});
    Start();
    EXPECT_EQ(Property(kFileWriter, "folderPath"), folder.path);
    EXPECT_EQ(folder.Names().size(), 1u);
    Change({kUnbuffered, "logEnabled = true", "logDirectory = " + other.path});
    EXPECT_EQ(Property(kFileWriter, "folderPath"), folder.path);
    EXPECT_EQ(Changes(), Lines{"enableBuffering changed to FALSE"}) << "the writer was made behind that key";
    EXPECT_EQ(other.Names(), Lines());
}

TEST_F(LoggerSettingsTest, TheAddressIsTakenAtTheStartOnly) {
    Configure({kUnbuffered, "logToSyslog = true", "logRemoteAddress = 127.0.0.1", "logRemotePort = 5514"});
    AddWriters({kStdOutWriter});
    Start();
    EXPECT_EQ(Property(kSocketWriter, "remoteAddress"), "127.0.0.1");
    EXPECT_EQ(Property(kSocketWriter, "remotePort"), "5514");
    Change({kUnbuffered, "logToSyslog = true", "logRemoteAddress = 127.0.0.2", "logRemotePort = 5515"});
    EXPECT_EQ(Property(kSocketWriter, "remoteAddress"), "127.0.0.1");
    EXPECT_EQ(Property(kSocketWriter, "remotePort"), "5514");
    EXPECT_EQ(Changes(), Lines());
}

TEST_F(LoggerSettingsTest, LaterFilesOverrideEarlierOnes) {
    const std::string second = configFolder.File("second");
    WriteText(second, "Test.logger.logMaxNumFiles = 9\n");
    Configure({"logLevel = DEBUG", "logMaxNumFiles = 3", "logMaxDaysKept = 4"});
    EXPECT_TRUE(logger->AddConfigFile(second));
    EXPECT_TRUE(logger->AddConfigFile(configFolder.File("missing")));
    AddWriters({kFileWriter});
    ASSERT_TRUE(logger->Start());
    EXPECT_EQ(logger->GetLevel(), kLogDebug) << "an absent key changes nothing before the start";
    EXPECT_EQ(Property(kFileWriter, "maxNumFiles"), "9");
    EXPECT_EQ(Property(kFileWriter, "maxDaysKept"), "4");
}

TEST_F(LoggerSettingsTest, NothingIsAppliedWithoutAReader) {
    Configure({}, kLogWarn);
    AddWriters({kStdOutWriter});
    Start();
    logger->ApplySettings(RCPtr<SettingsReader>());
    EXPECT_EQ(logger->GetLevel(), kLogWarn);
    EXPECT_EQ(output.Text(), "");
}

// A reader that isn't one on a file, with no keys at all.
class OtherReader : public SettingsReader {
public:
    bool IsFileReader() override { return false; }
    const char* GetName() override { return "OtherReader"; }
    bool GetString(const std::string&, int, std::string&, bool) override { return false; }
    bool GetUInt(const std::string&, uint32_t*, bool) override { return false; }
    bool GetBool(const std::string&, bool*, bool) override { return false; }
    std::string Describe(const std::string& key) override { return "other:" + key; }
};

TEST_F(LoggerSettingsTest, ThisPlatformHasNoTraceKey) {
    Configure({}, kLogWarn);
    AddWriters({kStdOutWriter});
    EXPECT_TRUE(logger->SetTraceKeyFallback(true));
    const RCPtr<SettingsReader> other(new OtherReader);
    logger->ApplySettings(other);
    EXPECT_EQ(logger->GetLevel(), kLogWarn);
    Start();
    OnLoggerThread([&] { logger->ApplySettings(other); });
    EXPECT_EQ(logger->GetLevel(), kLogInfo);
    EXPECT_TRUE(Contains(output.Text(), " A OtherReader: logLevel changed to INFO\n"));
}

}  // namespace
