#include "tools/logview/LogLine.h"

#include <gtest/gtest.h>

#include "logging/LogWriter.h"
#include "tests/logview/ViewSupport.h"

namespace {

// Only what LogWriter asks of a writer; it has no medium.
class PrefixWriter : public LogWriter {
public:
    PrefixWriter() : LogWriter(kStdOutWriter) {}
    bool Open() override { return true; }
    bool WriteMessage(const RCPtr<LogMessage>&) override { return true; }
    bool Close() override { return true; }
};

TEST(LogLine, TakesApartWhatTheWriterPutsBeforeALine) {
    const RCPtr<PrefixWriter> writer(new PrefixWriter);
    struct Case {
        const char* signature;
        int level;
        const char* function;
    };
    for (const Case& c : {Case{"bool UsbRedirectionLogger::Start(const std::string&, Level, bool)", kLogInfo,
                               "UsbRedirectionLogger::Start()"},
                          {"@OS Version", kLogAlways, "OS Version"},
                          {"Logger Shutdown", kLogAlways, "Shutdown"},
                          {"int main()", kLogError, "main()"},
                          {"void f()", kLogWarn, "f()"},
                          {"void f()", kLogDebug, "f()"},
                          {"void f()", kLogTrace, "f()"},
                          {"void f()", kLogVerbose, "f()"}}) {
        char prefix[256];
        const int length = writer->FormatPrefix(prefix, sizeof prefix, c.signature, c.level);
        const std::string text = std::string(prefix, static_cast<size_t>(length)) + "a: b";
        const LogLine line = ParseLogLine(text);
        ASSERT_EQ(line.kind, LineKind::Entry) << text;
        EXPECT_EQ(line.level, c.level);
        EXPECT_EQ(line.function, c.function);
        EXPECT_EQ(line.text, "a: b");
        EXPECT_EQ(line.process, static_cast<uint32_t>(getpid()));
        EXPECT_EQ(line.thread, GetThreadNumber());
    }
}

TEST(LogLine, KnowsNoticesAndSeparators) {
    struct Case {
        std::string line;
        LineKind kind;
        const char* text;
    };
    const std::string stamped = "2026-11-17 23:22:01.123 <00000001> [10E1] ";
    for (const Case& c : {Case{"******* Dropped 12 messages *******", LineKind::Notice, "Dropped 12 messages"},
                          {"******* Dropped  messages *******", LineKind::Other, ""},
                          {"******* Dropped x messages *******", LineKind::Other, ""},
                          {"***** BATCH MODE ENABLED *****", LineKind::Notice, "BATCH MODE ENABLED"},
                          {"***** BATCH MODE ENABLED ***** ", LineKind::Other, ""},
                          {std::string(78, '*'), LineKind::Notice, ""},
                          {std::string(77, '*'), LineKind::Other, ""},
                          {"************************   NEW LOG SESSION STARTING   ************************",
                           LineKind::Notice, "NEW LOG SESSION STARTING"},
                          {stamped + "******* Free disk space is 150.0MB - Logging suspended *******", LineKind::Notice,
                           "Free disk space is 150.0MB - Logging suspended"},
                          {stamped + "******* other", LineKind::Other, ""},
                          {std::string(39, '-'), LineKind::Separator, ""},
                          {std::string(40, '-'), LineKind::Other, ""}}) {
        const LogLine line = ParseLogLine(c.line);
        EXPECT_EQ(line.kind, c.kind) << c.line;
        EXPECT_EQ(line.text, c.text);
    }
}

TEST(LogLine, LeavesWhatIsNoLineOfTheLog) {
    for (const char* text :
         {"", " ", "2", "2026-11-17 23:22:01.123", "2026-11-17 23:22:01.123 <00000001> [10E1] I f() no colon",
          "2026-11-17 23:22:01.123Z <00000001> [10E1] I f(): x", "2026-11-17T23:22:01.123 <00000001> [10E1] I f(): x",
          "2026-11-17T23:22:01.123X <00000001> [10E1] I f(): x", "2026-11-17 23:22:01,123 <00000001> [10E1] I f(): x",
          "2026-11-17 23:22:01.123 <0000001> [10E1] I f(): x",
          "2026-11-17 23:22:01.123 <00000000000000001> [10E1] I f(): x",
          "2026-11-17 23:22:01.123 <0000000G> [10E1] I f(): x", "2026-11-17 23:22:01.123 <00000001> [0E1] I f(): x",
          "2026-11-17 23:22:01.123 <00000001> [10E1] X f(): x", "2026-11-17 23:22:01.123 <00000001> [10E1] IN f(): x",
          " 2026-11-17 23:22:01.123 <00000001> [10E1] I f(): x",
          "<1>1 2026-11-17T23:22:01.123Z host app - - 2026-11-17 23:22:01.123"}) {
        EXPECT_EQ(ParseLogLine(text).kind, LineKind::Other) << text;
    }
}

TEST(LogLine, ReadsStampsInBothTimeBases) {
    EXPECT_EQ(StampToMS("2026-11-17T22:22:01.123Z"), 1794954121123);
    setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
    tzset();
    EXPECT_EQ(StampToMS("2026-11-17 23:22:01.123"), 1794954121123);
    EXPECT_EQ(StampToMS("2026-07-17 23:22:01.000"), 1784323321000);
    unsetenv("TZ");
    tzset();
    const LogLine utc = ParseLogLine("2026-11-17T22:22:01.123Z <1234567890ABCDEF> [12345678] ? f(): ");
    EXPECT_EQ(utc.kind, LineKind::Entry);
    EXPECT_EQ(utc.level, kLogUnknown);
    EXPECT_EQ(utc.stamp, "2026-11-17T22:22:01.123Z");
    EXPECT_EQ(utc.thread, 0x1234567890ABCDEFu);
    EXPECT_EQ(utc.process, 0x12345678u);
    EXPECT_EQ(utc.text, "");
}

}  // namespace
