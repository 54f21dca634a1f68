#include "logging/Logger.h"

#include <cstdarg>
#include <thread>

#include "logging/LogMessageCache.h"
#include "logging/ProxyWriter.h"
#include "tests/logging/LogSupport.h"
#include "tests/support/Pattern.h"

namespace {

const char kStampPattern[] = R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} <[0-9A-F]{8,}> \[[0-9A-F]{4,}\] )";

// What a proxy was given, as "<level letter> <function>: <text>".
std::vector<std::string>& ProxyLines() {
    static std::vector<std::string> lines;
    return lines;
}
void (*gProxyHook)() = nullptr;

void TakeProxyLine(const char* function, int level, const char* format, ...) {
    va_list args;
    va_start(args, format);
    char text[4096];
    std::vsnprintf(text, sizeof text, format, args);
    va_end(args);
    ProxyLines().push_back(std::string(1, LogLevelLetter(level)) + " " + function + ": " + text);
    if (gProxyHook) gProxyHook();
}

class LoggerTest : public LoggingTest {
protected:
    LoggerTest() {
        ProxyLines().clear();
        gProxyHook = nullptr;
    }

    static void AddProxy(const RCPtr<Logger>& logger) {
        const RCPtr<LogWriter> writer = logger->AddWriter(kProxyWriter);
        EXPECT_TRUE(static_cast<ProxyWriter*>(writer.Get())->SetProxyFunction(TakeProxyLine));
    }
    static RCPtr<Logger> StartProxy(int level) {
        StartThread();
        const RCPtr<Logger> logger = MakeLogger(level);
        AddProxy(logger);
        EXPECT_TRUE(logger->Start());
        ProxyLines().clear();
        return logger;
    }
};

TEST_F(LoggerTest, ALineThatIsOffEvaluatesNothing) {
    StartStdOut(kLogWarn);
    int evaluated = 0;
    LOG(Info, "%d", ++evaluated);
    EXPECT_EQ(evaluated, 0);
    LOG(Warn, "%d", ++evaluated);
    LOG_AT(kLogError, "%d", ++evaluated);
    EXPECT_EQ(evaluated, 2);
}

TEST_F(LoggerTest, TheLevelWordFollowsTheDefaultLogger) {
    EXPECT_EQ(gLogLevel.load(), 0);
    const RCPtr<Logger> first = StartStdOut(kLogDebug);
    EXPECT_EQ(gLogLevel.load(), kLogDebug);
    const RCPtr<Logger> second = LoggerManager::CreateLogger("second", "Test", false);
    second->SetLevel(kLogVerbose);
    second->AddWriter(kStdOutWriter);
    second->Start();
    EXPECT_EQ(gLogLevel.load(), kLogDebug) << "not the default one";
    LoggerManager::SetDefaultLogger(second);
    EXPECT_EQ(gLogLevel.load(), kLogVerbose);
    LoggerManager::SetDefaultLogger(RCPtr<Logger>());
    EXPECT_EQ(gLogLevel.load(), 0);
    LoggerManager::SetDefaultLogger(first);
    LoggerManager::Shutdown();
    EXPECT_EQ(gLogLevel.load(), 0);
}

TEST_F(LoggerTest, TheHeaderTellsBuildSystemTimeAndLevel) {
    for (const bool local : {true, false}) {
        const RCPtr<Logger> logger = LoggerManager::CreateLogger(local ? "local" : "utc", "Test", true);
        logger->SetUseLocalTime(local);
        logger->AddWriter(kStdOutWriter);
        output.Clear();
        ASSERT_TRUE(logger->Start());
        EXPECT_TRUE(logger->Start()) << "a second time";
        std::vector<std::string> lines = SplitLines(output.Text());
        lines.erase(std::remove(lines.begin(), lines.end(), std::string(39, '-')), lines.end());
        ASSERT_EQ(lines.size(), 4u);
        const std::string stamp = local ? kStampPattern : R"(\S{10}T\S{12}Z <[0-9A-F]{8,}> \[[0-9A-F]{4,}\] )";
        const std::string bits = std::to_string(sizeof(void*) * 8);
        const std::string patterns[] = {
            R"(A Logger::LogStartupInfo\(\): version=\d+\.\d+\.\d+ build-\d+ \S+ \(.+\), buildtype=release/)" + bits +
                "-bit",
            R"(A OS Version: Linux, \S+, .+)",
            std::string(R"(A Time Zone: .* \(UTC [+-]\d{4}\), )") +
                (local ? R"(Local time is \S{10} \S{12})" : R"(UTC time is \S{10}T\S{12}Z)"),
            R"(A Log Level: INFO \(read from \))",
        };
        for (int i = 0; i < 4; ++i) EXPECT_TRUE(Matches(lines[i], stamp + patterns[i])) << lines[i];
    }
}

TEST_F(LoggerTest, StartNeedsPermissionAndAWriterThatStarts) {
    const RCPtr<Logger> logger = MakeLogger();
    EXPECT_FALSE(logger->Start()) << "no writer";
    const RCPtr<FileWriter> broken = AddFileWriter(logger, "/nonexistent/folder");
    EXPECT_FALSE(logger->Start()) << "no writer that starts";
    EXPECT_FALSE(logger->IsStarted());
    logger->AddWriter(kStdOutWriter);
    logger->SetStartAllowed(false);
    EXPECT_FALSE(logger->Start());
    EXPECT_TRUE(logger->SetStartAllowed(true));
    EXPECT_TRUE(logger->Start()) << "one of two is enough";
    EXPECT_FALSE(broken->IsStarted());
}

TEST_F(LoggerTest, NothingChangesOnceItIsStarted) {
    const RCPtr<Logger> started = StartStdOut();
    EXPECT_FALSE(started->SetLevel(kLogTrace) || started->SetUseLocalTime(false) || started->SetStartAllowed(false) ||
                 started->SetAutoCreateWriters(false) || started->SetTraceKeyFallback(true));
    EXPECT_FALSE(started->AddWriter(kStdErrWriter));
    EXPECT_EQ(started->GetLevel(), kLogInfo);
}

TEST_F(LoggerTest, NamesAndTypesOfWritersAreTakenOnce) {
    EXPECT_FALSE(LoggerManager::CreateLogger("", "Test", true));
    const RCPtr<Logger> logger = MakeLogger();
    EXPECT_FALSE(LoggerManager::CreateLogger("logger", "Other", true));
    EXPECT_TRUE(LoggerManager::GetDefaultLogger() == logger);
    EXPECT_FALSE(LoggerManager::HasLogger("Logger"));
    EXPECT_FALSE(logger->AddConfigFile(""));
    EXPECT_FALSE(LoggerManager::CreateLogger("no component", "", false)->AddConfigFile("/tmp/x"));
    for (int type = kDebugWriter; type <= kProxyWriter; ++type) {
        EXPECT_EQ(logger->AddWriter(type)->GetType(), type);
        EXPECT_FALSE(logger->AddWriter(type));
    }
    EXPECT_FALSE(logger->AddWriter(-1) || logger->AddWriter(6));
}

TEST_F(LoggerTest, WritersShareTheLineThatTheFirstOneLaidOut) {
    const TempFolder folder;
    const RCPtr<Logger> logger = MakeLogger();
    const RCPtr<FileWriter> file = AddFileWriter(logger, folder.path);
    file->SetBuffering(false);
    AddProxy(logger);
    logger->AddWriter(kStdOutWriter);
    ASSERT_TRUE(logger->Start());
    const std::string path = file->GetCurrentPath();
    const size_t before = ReadText(path).size();
    output.Clear();
    ProxyLines().clear();
    Logger::Log("void Shared::Line(int)", kLogInfo, "same for all, the word kestor masked");
    const std::string line = ReadText(path).substr(before);
    EXPECT_TRUE(Contains(line, " I Shared::Line(): same for all, the word k***** masked\n"));
    EXPECT_EQ(output.Text(), line);
    EXPECT_EQ(ProxyLines(), std::vector<std::string>{"A : " + line});
}

TEST_F(LoggerTest, SomeWritersCanBeAddressedAlone) {
    const RCPtr<Logger> logger = MakeLogger();
    AddProxy(logger);
    logger->AddWriter(kStdOutWriter);
    ASSERT_TRUE(logger->Start());
    output.Clear();
    ProxyLines().clear();
    logger->LogToWriter("One()", kLogInfo, kStdOutWriter, "to one");
    logger->LogToWriter("One()", kLogDebug, kStdOutWriter, "off");
    logger->LogToWriter("One()", kLogInfo, kStdErrWriter, "to none");
    EXPECT_TRUE(Contains(output.Text(), " I One(): to one\n")) << "laid out by the one";
    EXPECT_EQ(CountOf(output.Text(), "\n"), 1u);
    output.Clear();
    logger->LogToWriters("Both()", kLogInfo, {kStdOutWriter, kProxyWriter}, "to %s", "both");
    EXPECT_EQ(ProxyLines(), std::vector<std::string>{"I Both(): to both\n"});
    EXPECT_EQ(output.Text(), "@PROXY/3Both()/to both\n");
}

TEST_F(LoggerTest, AProxyRefusesWhatItCantHandOn) {
    const RCPtr<LogMessageManager> pool(new LogMessageManager);
    ProxyWriter proxy;
    const auto write = [&](const char* text) { return proxy.WriteMessage(pool->NewMessage(kLogInfo, text, -1)); };
    EXPECT_FALSE(write("no receiver"));
    proxy.SetProxyFunction(TakeProxyLine);
    EXPECT_FALSE(proxy.WriteMessage(pool->NewMessage(kLogInfo, nullptr, 0)));
    EXPECT_FALSE(write("@PROXY/3 no end of the function"));
    // What a longer line left in the buffer doesn't count.
    const RCPtr<LogMessage> used = pool->NewMessage(kLogInfo, "@PROXY/3old/stale", -1);
    used->SetLength(7, false);
    EXPECT_FALSE(proxy.WriteMessage(used));
    EXPECT_TRUE(ProxyLines().empty());
    EXPECT_TRUE(write("   unmarked"));
    EXPECT_EQ(ProxyLines(), std::vector<std::string>{"A : unmarked\n"});
    proxy.Close();
    EXPECT_FALSE(write("closed"));
}

TEST_F(LoggerTest, ALineFromWithinALogCallIsDropped) {
    StartProxy(kLogInfo);
    gProxyHook = [] { Logger::Log("Nested()", kLogAlways, "nested"); };
    Logger::Log("void Outer()", kLogInfo, "with a %s/b", "slash");
    gProxyHook = nullptr;
    Logger::Log(nullptr, kLogWarn, "no function");
    EXPECT_EQ(ProxyLines(), (std::vector<std::string>{"I void Outer(): with a slash/b\n", "W : no function\n"}));
}

TEST_F(LoggerTest, WithoutADefaultLoggerALineIsDropped) {
    Logger::Log("Nobody()", kLogAlways, "lost");
    const RCPtr<Logger> other = LoggerManager::CreateLogger("other", "Test", false);
    other->AddWriter(kStdOutWriter);
    other->Start();
    output.Clear();
    Logger::Log("Nobody()", kLogAlways, "lost");
    EXPECT_EQ(output.Text(), "");
    other->LogLine("Somebody()", kLogInfo, "found");
    other->LogLine("Somebody()", kLogDebug, "above its level");
    EXPECT_TRUE(Contains(output.Text(), " I Somebody(): found\n"));
    EXPECT_EQ(CountOf(output.Text(), "\n"), 1u);
}

// Around the size of a message, and that of the buffer in which a line is laid out.
TEST_F(LoggerTest, LongLinesComeWhole) {
    StartProxy(kLogInfo);
    for (const size_t length : {240u, 255u, 256u, 479u, 480u, 4000u}) {
        ProxyLines().clear();
        const std::string text(length, 'x');
        Logger::Log("Long()", kLogInfo, "%s", text.c_str());
        EXPECT_EQ(ProxyLines(), std::vector<std::string>{"I Long(): " + text + "\n"});
    }
}

TEST_F(LoggerTest, HexDumpsStandUnderTheirPrefix) {
    const RCPtr<Logger> logger = StartStdOut();
    const std::string data = "ABCDEFGHIJKLMNOPQRST\x01";
    Logger::LogHex("Dump()", kLogInfo, data.data(), static_cast<int>(data.size()));
    const std::vector<std::string> lines = SplitLines(output.Text());
    ASSERT_EQ(lines.size(), 2u);
    const size_t indent = lines[0].find("Dump(): ") + 8;
    EXPECT_EQ(lines[0].substr(indent), "0x0000: 41 42 43 44 45 46 47 48 49 4A 4B 4C 4D 4E 4F 50  ABCDEFGHIJKLMNOP");
    EXPECT_EQ(lines[1].substr(0, indent + 24), std::string(indent, ' ') + "0x0010: 51 52 53 54 01  ");
    EXPECT_TRUE(Contains(lines[1], " QRST."));

    output.Clear();
    std::thread([&] { logger->LogHexLine("Dump()", kLogInfo, data.data(), 17); }).join();
    const std::vector<std::string> separated = SplitLines(output.Text());
    ASSERT_EQ(separated.size(), 3u);
    EXPECT_EQ(separated[0], std::string(39, '-'));
    EXPECT_EQ(separated[2].find("0x0010"), separated[1].find("0x0000")) << "the separator doesn't count";

    output.Clear();
    const std::string large(70000, 'z');
    Logger::LogHex("Dump()", kLogDebug, large.data(), 1);
    EXPECT_EQ(output.Text(), "") << "above the level";
    Logger::LogHex("Dump()", kLogInfo, large.data(), static_cast<int>(large.size()));
    EXPECT_EQ(CountOf(output.Text(), "\n"), 4097u) << "65,535 bytes and the separator";
    output.Clear();
    Logger::LogHex("Dump()", kLogInfo, nullptr, 0);
    EXPECT_TRUE(output.Text().ends_with(" Dump(): \n"));
}

TEST_F(LoggerTest, LoggingCanBeSetUpAgainAfterAShutdown) {
    StartStdOut();
    LoggerManager::Shutdown();
    EXPECT_TRUE(LoggerManager::IsShuttingDown());
    EXPECT_FALSE(LoggerManager::HasLogger("logger"));
    output.Clear();
    Logger::Log("Late()", kLogAlways, "dropped");
    LoggerManager::Shutdown();
    EXPECT_EQ(output.Text(), "");
    StartStdOut();
    Logger::Log("Early()", kLogInfo, "written");
    EXPECT_TRUE(Contains(output.Text(), "Early(): written\n"));
}

TEST_F(LoggerTest, TracesAScope) {
    struct Case {
        int level;
        bool timed;
        const char* enter;  // the text of the begin
        int exitLevel;
        const char* exit;  // null for none
        std::vector<std::string> lines;
    };
    const std::string longText(2000, 'y');
    const std::string cut = longText.substr(0, 1023) + "\n";
    const Case cases[] = {
        {kLogInfo, false, "", 0, nullptr, {"I Enter\n", "I Exit\n"}},
        {kLogInfo, true, "called", 0, nullptr, {"I Enter - called\n", "I Exit(ms)\n"}},
        {kLogInfo, false, "", kLogWarn, "went 7", {"I Enter\n", "W Exit - went 7\n"}},
        {kLogInfo, true, "", kLogError, "bad\n", {"I Enter\n", "E Exit(ms) - bad\n"}},
        {kLogInfo, false, "", kLogError, "", {"I Enter\n", "I Exit\n"}},
        {kLogInfo, false, "", kLogDebug, "unseen", {"I Enter\n", "I Exit\n"}},
        {kLogInfo, false, longText.c_str(), kLogInfo, longText.c_str(), {"I Enter - " + cut, "I Exit - " + cut}},
        {kLogDebug, true, "off", 0, nullptr, {}},
        {kLogDebug, true, "off", kLogWarn, "but this", {"W but this\n"}},
    };
    const RCPtr<Logger> logger = StartProxy(kLogInfo);
    for (const Case& c : cases) {
        for (const RCPtr<Logger>& own : {logger, RCPtr<Logger>()}) {
            ProxyLines().clear();
            {
                FunctionTrace trace(c.level, "void Traced()", own, c.enter);
                trace.timed = c.timed;
                if (c.exit) trace.SetExitMessage(c.exitLevel, "%s", c.exit);
            }
            std::vector<std::string> lines;
            for (std::string line : ProxyLines()) {
                EXPECT_EQ(line.substr(1, 16), " void Traced(): ");
                line.erase(1, 15);
                std::vector<std::string> elapsed;
                if (Finds(line, R"(\((\d+)ms\))", &elapsed)) line.erase(line.find('(') + 1, elapsed[1].size());
                lines.push_back(line);
            }
            EXPECT_EQ(lines, c.lines) << (own ? "on a logger of its own" : "");
        }
    }
}

TEST_F(LoggerTest, ATraceOverTheStartOfItsLoggerHasAnExit) {
    const RCPtr<Logger> logger = MakeLogger(kLogInfo);
    logger->AddWriter(kStdOutWriter);
    {
        const FunctionTrace trace(kLogInfo, "Starts()", logger, "");
        EXPECT_TRUE(logger->Start());
    }
    EXPECT_EQ(CountOf(output.Text(), "Starts(): Enter"), 0u);
    EXPECT_EQ(CountOf(output.Text(), "Starts(): Exit\n"), 1u);
}

TEST_F(LoggerTest, ATraceStaysWithTheLoggerOfItsEnter) {
    StartStdOut();
    {
        const FunctionTrace trace(kLogInfo, "Stays()", RCPtr<Logger>(), "");
        LoggerManager::SetDefaultLogger({});
        LOG(Info, "dropped\n");
    }
    EXPECT_EQ(CountOf(output.Text(), "Stays(): Enter\n"), 1u);
    EXPECT_EQ(CountOf(output.Text(), "Stays(): Exit\n"), 1u);
    EXPECT_EQ(CountOf(output.Text(), "dropped"), 0u);
}

TEST_F(LoggerTest, ATraceOverTheEndOfItsLoggerHasNoExit) {
    for (const bool own : {false, true}) {
        const RCPtr<Logger> logger = StartStdOut();
        {
            FunctionTrace trace(kLogInfo, "Ends()", own ? logger : RCPtr<Logger>(), "");
            EXPECT_EQ(CountOf(output.Text(), "Enter"), 1u);
            LoggerManager::Shutdown();
            trace.SetExitMessage(kLogAlways, "never");
        }
        EXPECT_EQ(CountOf(output.Text(), "Ends(): Exit") + CountOf(output.Text(), "never"), 0u);
    }
}

}  // namespace
