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
    for (const auto& [signature, function] :
         {std::pair{"bool UsbRedirectionLogger::Start(const std::string&, bool)", "UsbRedirectionLogger::Start()"},
          {"@OS Version", "OS Version"},
          {"Logger Shutdown", "Shutdown"}}) {
        for (int level = kLogAlways; level < kLogNever; ++level) {
            char prefix[256];
            const int length = writer->FormatPrefix(prefix, sizeof prefix, signature, level);
            const std::string text = std::string(prefix, static_cast<size_t>(length)) + "a: b";
            const LogLine line = ParseLogLine(text);
            ASSERT_EQ(line.kind, LineKind::Entry) << text;
            EXPECT_EQ(line.level, level);
            EXPECT_EQ(line.function, function);
            EXPECT_EQ(line.text, "a: b");
            EXPECT_EQ(line.process, static_cast<uint32_t>(getpid()));
            EXPECT_EQ(line.thread, GetThreadNumber());
        }
    }
}

TEST(LogLine, KnowsNoticesAndSeparators) {
    const std::string stamped = "2026-11-17 23:22:01.123 <00000001> [10E1] ";
    for (const auto& [notice, shown] :
         {std::pair<std::string, const char*>{"******* Dropped 12 messages *******", "Dropped 12 messages"},
          {"***** BATCH MODE ENABLED *****", "BATCH MODE ENABLED"},
          {std::string(78, '*'), ""},
          {std::string(24, '*') + "   NEW LOG SESSION STARTING   " + std::string(24, '*'), "NEW LOG SESSION STARTING"},
          {stamped + "******* Free disk space is 1.0MB - Logging suspended *******",
           "Free disk space is 1.0MB - Logging suspended"}}) {
        const LogLine line = ParseLogLine(notice);
        EXPECT_EQ(line.kind, LineKind::Notice) << notice;
        EXPECT_EQ(line.text, shown);
    }
    EXPECT_EQ(ParseLogLine(std::string(39, '-')).kind, LineKind::Separator);
}

TEST(LogLine, LeavesWhatIsNoLineOfTheLog) {
    const std::string whole = "2026-11-17 23:22:01.123 <00000001> [10E1] I f(): x";
    ASSERT_EQ(ParseLogLine(whole).kind, LineKind::Entry);
    // One place of it changed each.
    for (const auto& [part, other] : {std::pair{"2026", " 2026"},
                                      {"(): x", "() no colon"},
                                      {".123", ".123Z"},
                                      {" 23:", "T23:"},
                                      {".123", ",123"},
                                      {"<00000001>", "<0000001>"},
                                      {"<00000001>", "<00000000000000001>"},
                                      {"<00000001>", "<0000000G>"},
                                      {"[10E1]", "[0E1]"},
                                      {" I ", " X "},
                                      {" I ", " IN "},
                                      {"I f(): x", "******* other"}}) {
        std::string text = whole;
        text.replace(text.find(part), std::string(part).size(), other);
        EXPECT_EQ(ParseLogLine(text).kind, LineKind::Other) << text;
    }
    for (const std::string& text :
         {std::string(), std::string("2"), whole.substr(0, 23), std::string(77, '*'), std::string(40, '-'),
          std::string("2026-11-17T23:22:01.123X <00000001> [10E1] I f(): x"),
          std::string("******* Dropped  messages *******"), std::string("******* Dropped x messages *******"),
          std::string("***** BATCH MODE ENABLED ***** ")}) {
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
