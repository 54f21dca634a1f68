// What each key does to a logger, at the start and while it runs.
#include <functional>
#include <optional>

#include "logging/ConfigSettingsReader.h"
#include "tests/logging/LogSupport.h"

namespace {

using Lines = std::vector<std::string>;

class LoggerSettingsTest : public LoggingTest {
protected:
    LoggerSettingsTest() : savedErrors(std::cerr.rdbuf(errors.rdbuf())) {}
    ~LoggerSettingsTest() override {
        LoggerManager::Shutdown();
        std::cerr.rdbuf(savedErrors);
    }

    // A default logger of its own for each call, not started, with those keys and writers.
    void Configure(const Lines& keys, const std::vector<int>& types = {kStdOutWriter}) {
        LoggerManager::Shutdown();
        logger = MakeLogger();
        Write(keys);
        EXPECT_TRUE(logger->AddConfigFile(path));
        for (const int type : types) {
            if (type == kFileWriter) {
                AddFileWriter(logger, folder.path);
            } else {
                logger->AddWriter(type);
            }
        }
        output.Clear();
    }
    // From here on output holds only what comes after the start.
    void Start() {
        ASSERT_TRUE(logger->Start());
        reader = new ConfigSettingsReader(logger.Get(), "Test.logger", path);
        output.Clear();
    }
    // The file changes while the logger runs, and is read where the watcher does it.
    void Change(const Lines& keys) {
        Write(keys);
        OnLoggerThread([&] { reader->CheckFile(true); });
    }
    void Write(const Lines& keys) {
        std::string text;
        for (const std::string& key : keys) text += "Test.logger." + key + "\n";
        WriteText(path, text);
        age -= 60;
        SetFileAge(path, age);
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
    // Since the last call.
    Lines Changes() {
        const Lines changes = ChangesIn(output.Text());
        output.Clear();
        return changes;
    }

    TempFolder folder;
    TempFolder configFolder;
    const std::string path = configFolder.File("config");
    int64 age = 1000000;  // of the file, less with each change
    RCPtr<Logger> logger;
    RCPtr<ConfigSettingsReader> reader;
    std::ostringstream errors;
    std::streambuf* const savedErrors;
};

constexpr const char* kUnbuffered = "enableBuffering = false";

TEST_F(LoggerSettingsTest, TheLevelAtTheStart) {
    const std::pair<const char*, int> cases[] = {
        {"", kLogWarn},
        {"logLevel = DEBUG", kLogDebug},
        {"logLevel = Verbose  ", kLogVerbose},
        {"logLevel = always", kLogAlways},
        {"logLevel = NEVER", kLogWarn},
        {"logLevel = 5", kLogWarn},
        {"LOGLEVEL = DEBUG", kLogWarn},
    };
    for (const auto& [key, level] : cases) {
        Configure({key});
        logger->SetLevel(kLogWarn);
        EXPECT_TRUE(logger->SetTraceKeyFallback(true)) << "which this platform has none of";
        ASSERT_TRUE(logger->Start());
        EXPECT_EQ(logger->GetLevel(), level) << key;
        EXPECT_EQ(gLogLevel.load(), level);
        EXPECT_TRUE(Contains(output.Text(), std::string("Log Level: ") + LogLevelName(level) + " (read from " + path +
                                                " [Test.logger.logLevel])\n"));
        EXPECT_EQ(Changes(), Lines());
    }
}

TEST_F(LoggerSettingsTest, TheLevelWhileRunning) {
    Configure({kUnbuffered, "logLevel = WARN"});
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
    };
    for (const auto& step : steps) {
        Change({kUnbuffered, step.key});
        EXPECT_EQ(logger->GetLevel(), step.level) << step.key;
        EXPECT_EQ(gLogLevel.load(), step.level);
        EXPECT_EQ(Changes(), step.change ? Lines{step.change} : Lines()) << step.key;
    }

    const RCPtr<Logger> other = LoggerManager::CreateLogger("other", "Test", true);
    other->AddWriter(kStdOutWriter);
    ASSERT_TRUE(other->Start());
    Change({kUnbuffered, "logLevel = TRACE"});
    EXPECT_EQ(logger->GetLevel(), kLogTrace);
    EXPECT_EQ(gLogLevel.load(), kLogInfo) << "that of the default logger";
    EXPECT_EQ(Changes(), Lines{"logLevel changed to TRACE"}) << "told by the default logger";
}

TEST_F(LoggerSettingsTest, LocalTime) {
    for (const auto& [key, before, local] :
         {std::tuple{"", false, false}, {"useLocalTime = TRUE", false, true}, {"useLocalTime=false", true, false}}) {
        Configure({kUnbuffered, key});
        logger->SetUseLocalTime(before);
        Start();
        EXPECT_EQ(logger->UsesLocalTime(), local) << key;
    }
    const std::tuple<const char*, bool, Lines> steps[] = {
        {"useLocalTime = False", false, {}},
        {"", true, {"useLocalTime changed to TRUE"}},
        {"useLocalTime = true", true, {}},
        {"useLocalTime = false", false, {"useLocalTime changed to FALSE"}},
        {"useLocalTime = 0", true, {"useLocalTime changed to TRUE"}},
    };
    for (const auto& [key, local, changes] : steps) {
        Change({kUnbuffered, key});
        EXPECT_EQ(logger->UsesLocalTime(), local) << key;
        EXPECT_EQ(Changes(), changes) << key;
    }
}

TEST_F(LoggerSettingsTest, Buffering) {
    for (const auto& [key, file, stdOut] : {std::tuple{"enableBuffering = true", true, true},
                                            {kUnbuffered, false, false},
                                            {"enableBuffering = no", true, false}}) {
        Configure({key}, {kFileWriter, kStdOutWriter});
        Start();
        EXPECT_EQ(logger->GetWriter(kFileWriter)->IsBuffering(), file) << key;
        EXPECT_EQ(logger->GetWriter(kStdOutWriter)->IsBuffering(), stdOut) << key;
    }
    const RCPtr<LogWriter> file = logger->GetWriter(kFileWriter);
    const RCPtr<LogWriter> stdOut = logger->GetWriter(kStdOutWriter);
    Change({});
    EXPECT_TRUE(file->IsBuffering() && stdOut->IsBuffering()) << "an absent key";
    Change({kUnbuffered});
    EXPECT_FALSE(file->IsBuffering() || stdOut->IsBuffering());
    EXPECT_EQ(Changes(), (Lines{"enableBuffering changed to TRUE", "enableBuffering changed to FALSE",
                                "enableBuffering changed to FALSE"}))
        << "for each writer that differs";
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

// Keys that make the new writers work, whichever they are, and more.
Lines PlaceKeys(const std::string& folder, const Lines& more) {
    Lines keys{"logDirectory = " + folder, "logRemoteAddress = 127.0.0.1", "logRemotePort = 9"};
    keys.insert(keys.end(), more.begin(), more.end());
    return keys;
}

TEST_F(LoggerSettingsTest, SwitchesAtTheStart) {
    struct Case {
        std::optional<bool> before;  // whether the writer that is there is enabled
        const char* value;
        bool mayCreate;
        std::optional<bool> after;
    };
    for (const Case& c : {Case{{}, " = true", true, true},
                          {{}, " = TRUE", true, true},
                          {{}, " = false", true, {}},
                          {{}, " = 1", true, {}},
                          {{}, "", true, {}},
                          {{}, " = true", false, {}},
                          {true, " = false", false, false},
                          {true, " = 0", false, true},
                          {false, " = true", false, true},
                          {false, "", false, false}}) {
        for (const Switch& each : kSwitches) {
            SCOPED_TRACE(each.key + std::string(c.value));
            const std::vector<int> types(c.before ? 1 : 0, each.type);
            Configure(PlaceKeys(folder.path, {each.key + std::string(c.value)}), types);
            logger->SetAutoCreateWriters(c.mayCreate);
            if (c.before) logger->GetWriter(each.type)->SetEnabled(*c.before);
            EXPECT_EQ(logger->Start(), c.after.has_value());
            for (const Switch& other : kSwitches) EXPECT_EQ(logger->HasWriter(other.type), c.after && &other == &each);
            if (c.after) {
                EXPECT_EQ(logger->GetWriter(each.type)->IsEnabled(), *c.after);
            }
            EXPECT_EQ(Changes(), Lines());
        }
    }
}

TEST_F(LoggerSettingsTest, SwitchesWhileRunning) {
    for (const Switch& each : kSwitches) {
        // What the writer on a stream that is looked at doesn't tell itself, another one does.
        const bool onOutput = each.type == kDebugWriter || each.type == kStdOutWriter;
        Configure(PlaceKeys(folder.path, {kUnbuffered}), {each.type, onOutput ? each.type : kDebugWriter});
        const RCPtr<LogWriter> writer = logger->GetWriter(each.type);
        Start();
        const std::string name = std::string(each.label) + " - " + each.key + " changed to ";
        const std::tuple<const char*, bool> steps[] = {
            {"", true},          {" = true", true}, {" = False", false}, {" = no", false},
            {" = false", false}, {"", false},       {" = TRUE", true},
        };
        for (const auto& [value, enabled] : steps) {
            Change(PlaceKeys(folder.path, {kUnbuffered, each.key + std::string(value)}));
            EXPECT_EQ(writer->IsEnabled(), enabled) << each.key << value;
        }
        EXPECT_EQ(Changes(), (Lines{name + "FALSE", name + "TRUE"}));
    }
}

TEST_F(LoggerSettingsTest, AWriterThatIsNotThereIsNotMadeWhileRunning) {
    Configure({kUnbuffered});
    Start();
    Lines keys = PlaceKeys(folder.path, {kUnbuffered, "logMaxNumFiles = 3"});
    for (const Switch& each : kSwitches) keys.push_back(std::string(each.key) + " = true");
    Change(keys);
    for (const Switch& each : kSwitches) EXPECT_EQ(logger->HasWriter(each.type), each.type == kStdOutWriter);
    EXPECT_EQ(Changes(), Lines());
    EXPECT_EQ(folder.Names(), Lines());
}

TEST_F(LoggerSettingsTest, TheLineAboutASwitchOffReachesItsWriter) {
    for (const std::string& mode : {std::string("enableBuffering = true"), std::string(kUnbuffered)}) {
        Configure({mode}, {kFileWriter});
        Start();
        const std::string current = folder.File(folder.Names()[0]);
        Logger::Log("Test()", kLogInfo, "before");
        Change({mode, "logEnabled = false"});
        const std::string off = ReadText(current);
        EXPECT_EQ(CountOf(off, "Test(): before\n"), 1u);
        EXPECT_EQ(ChangesIn(off), Lines{"FILE - logEnabled changed to FALSE"}) << mode;
        Logger::Log("Test()", kLogInfo, "meanwhile");
        Change({mode, "logEnabled = true"});
        Logger::Log("Test()", kLogInfo, "after");
        LoggerManager::Shutdown();
        const std::string later = ReadText(current).substr(off.size());
        EXPECT_EQ(ChangesIn(later), Lines{"FILE - logEnabled changed to TRUE"});
        EXPECT_EQ(CountOf(later, "meanwhile"), 0u);
        EXPECT_EQ(CountOf(later, "Test(): after\n"), 1u);
        std::filesystem::remove(current);
    }
}

TEST_F(LoggerSettingsTest, ANumberAtTheStartAndWhileRunning) {
    const auto keys = [](const char* value) { return Lines{kUnbuffered, std::string("logMaxFileSizeMB = ") + value}; };
    for (const auto& [value, kept] : {std::pair{"5", "5"}, {"many", "0"}, {"-1", "15"}}) {
        Configure(keys(value), {kFileWriter, kStdOutWriter});
        Start();
        EXPECT_EQ(Property(kFileWriter, "maxFileSizeMB"), kept) << value;
    }
    const std::tuple<const char*, const char*, const char*> steps[] = {
        {"15", "15", nullptr},        {"5", "5", "5"},          {"", "5", nullptr},
        {"4294967295", "5", nullptr}, {"5000", "1024", "5000"},  // as given
        {"many", "0", "0"},
    };
    for (const auto& [value, kept, told] : steps) {
        Change(keys(value));
        EXPECT_EQ(Property(kFileWriter, "maxFileSizeMB"), kept) << value;
        EXPECT_EQ(Changes(), told ? Lines{std::string("FILE - logMaxFileSizeMB changed to ") + told} : Lines());
    }
}

TEST_F(LoggerSettingsTest, AllKeysOfOneChangeAreToldInOrder) {
    Configure({kUnbuffered}, {kFileWriter, kStdOutWriter});
    Start();
    const auto numbers = [&] {
        std::string text;
        for (const char* const property : {"maxDaysKept", "maxNumFiles", "minAgeInHours", "maxFileSizeMB",
                                           "maxRollingFiles", "diskThresholdLowMB", "diskThresholdHighMB"}) {
            text += Property(kFileWriter, property) + " ";
        }
        return text;
    };
    EXPECT_EQ(numbers(), "7 25 2 15 4 200 500 ");
    Change({"logToStdout = true", "logDiskThresholdHighMB = 27", "logMaxFileSizeMB = 24", "logMaxDaysKept = 21",
            "useLocalTime = false", "logLevel = TRACE", kUnbuffered, "logMaxNumFiles = 22", "logEnabled = false",
            "logDiskThresholdLowMB = 26", "logMaxRollingFiles = 25", "logMinAgeInHours = 23"});
    EXPECT_EQ(Changes(),
              (Lines{"logLevel changed to TRACE", "useLocalTime changed to FALSE", "FILE - logEnabled changed to FALSE",
                     "FILE - logMaxDaysKept changed to 21", "FILE - logMaxNumFiles changed to 22",
                     "FILE - logMinAgeInHours changed to 23", "FILE - logMaxFileSizeMB changed to 24",
                     "FILE - logMaxRollingFiles changed to 25", "FILE - logDiskThresholdLowMB changed to 26",
                     "FILE - logDiskThresholdHighMB changed to 27"}));
    EXPECT_EQ(numbers(), "21 22 23 24 25 26 27 ");
}

TEST_F(LoggerSettingsTest, PlacesAreTakenAtTheStartOnly) {
    const TempFolder other;
    const auto keys = [](const std::string& directory, const std::string& address, const std::string& port) {
        return Lines{"logEnabled = true", "logDirectory = " + directory, "logToSyslog = true",
                     "logRemoteAddress = " + address, "logRemotePort = " + port};
    };
    Configure(keys(folder.path, "127.0.0.1", "5514"));
    Start();
    EXPECT_EQ(folder.Names().size(), 1u);
    Change(keys(other.path, "127.0.0.2", "5515"));
    EXPECT_EQ(Property(kFileWriter, "folderPath"), folder.path);
    EXPECT_EQ(Property(kSocketWriter, "remoteAddress"), "127.0.0.1");
    EXPECT_EQ(Property(kSocketWriter, "remotePort"), "5514");
    EXPECT_EQ(other.Names(), Lines());
}

TEST_F(LoggerSettingsTest, LaterFilesOverrideEarlierOnes) {
    Configure({"logLevel = DEBUG", "logMaxNumFiles = 3", "logMaxDaysKept = 4"}, {kFileWriter});
    EXPECT_TRUE(logger->AddConfigFile(configFolder.Write("second", "Test.logger.logMaxNumFiles = 9\n")));
    EXPECT_TRUE(logger->AddConfigFile(configFolder.File("missing")));
    ASSERT_TRUE(logger->Start());
    EXPECT_EQ(logger->GetLevel(), kLogDebug) << "an absent key changes nothing before the start";
    EXPECT_EQ(Property(kFileWriter, "maxNumFiles"), "9");
    EXPECT_EQ(Property(kFileWriter, "maxDaysKept"), "4");
}

}  // namespace
