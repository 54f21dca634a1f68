#include "tools/logview/RecordStream.h"

#include <gtest/gtest.h>

#include "tests/logview/ViewSupport.h"

namespace {

// "first" and "more" records with their bytes.
class Collector : public RecordSink {
public:
    void Take(const LogRecord& record) override {
        records.emplace_back(std::string(record.first ? "first|" : "more|") + (record.midLine ? "mid|" : "") +
                             std::string(record.bytes));
        bytes += record.bytes;
        longest = std::max(longest, record.bytes.size());
    }
    std::vector<std::string> records;
    std::string bytes;
    size_t longest = 0;
};

const std::string kLog = "head of a dump\n" + Entry("I", "A::Run()", "one") + "  0x0000: 00\n  0x0010: 01\n" +
                         kSeparatorLine + Entry("E", "B::Stop()", "two", "000000AB") +
                         "\n******* Dropped 3 messages *******\n\n" + Entry("D", "A::Run()", "three") + kBannerLines +
                         Entry("W", "A::Stop()", "four");

TEST(RecordStream, CutsAlikeHoweverTheBytesArrive) {
    std::vector<std::string> expected;
    for (const size_t piece : {kLog.size(), size_t{1}, size_t{7}, size_t{64}}) {
        Collector collector;
        FeedAll(kLog, collector, {}, piece);
        EXPECT_EQ(collector.bytes, kLog);
        if (expected.empty()) expected = collector.records;
        EXPECT_EQ(collector.records, expected) << piece;
    }
    ASSERT_EQ(expected.size(), 10u);
    EXPECT_EQ(expected[0], "more|head of a dump\n");
    EXPECT_EQ(expected[1], "first|" + Entry("I", "A::Run()", "one") + "  0x0000: 00\n  0x0010: 01\n");
    EXPECT_EQ(expected[2], "first|" + kSeparatorLine);
    EXPECT_EQ(expected[4], "first|******* Dropped 3 messages *******\n\n");
}

TEST(RecordStream, FiltersWholeEntriesAndKeepsNotices) {
    const std::string notices = "******* Dropped 3 messages *******\n\n";
    const std::string banner = kBannerLines.substr(1);
    const std::string one = Entry("I", "A::Run()", "one") + "  0x0000: 00\n  0x0010: 01\n";
    const std::string two = Entry("E", "B::Stop()", "two", "000000AB") + "\n";
    const std::string three = Entry("D", "A::Run()", "three") + "\n", four = Entry("W", "A::Stop()", "four");
    struct Case {
        RecordFilter filter;
        std::string left;
    };
    for (const Case& c : {Case{{kLogWarn, {}, "", ""}, two + notices + banner + four},
                          {{kLogAlways, {}, "", ""}, notices + banner},
                          {{kLogNever, {}, "", ""}, one + two + notices + three + banner + four},
                          {{kLogUnknown, 0xAB, "", ""}, two + notices + banner},
                          {{kLogUnknown, {}, "Run", ""}, one + notices + three + banner},
                          {{kLogUnknown, {}, "", "0x0010: 01"}, one + notices + banner},
                          {{kLogUnknown, {}, "", "Stop"}, notices + banner},
                          {{kLogInfo, 1, "A::", "o"}, one + notices + banner + four}}) {
        Collector collector;
        FeedAll(kLog, collector, c.filter, 11);
        EXPECT_EQ(collector.bytes, c.left);
    }
}

TEST(RecordStream, HandsOnLongLinesInPartsOfBoundedSizeBetweenCharacters) {
    const std::string before = Entry("I", "f()", "short");
    for (const size_t shift : {0, 1, 2}) {
        std::string text(shift, 'x');
        for (size_t i = 0; i < RecordStream::kCapacity; i++) text += "\xE2\x82\xAC";
        const std::string important = Entry("E", "g()", text) + Entry("W", "h()", "last");
        Collector all, some, none;
        FeedAll(before + important, all, {}, 100000);
        FeedAll(before + important, some, {kLogWarn, {}, "", ""}, 100000);
        FeedAll(before + important, none, {kLogAlways, {}, "", ""}, 100000);
        EXPECT_TRUE(all.bytes == before + important);
        EXPECT_TRUE(some.bytes == important);
        EXPECT_TRUE(none.bytes.empty());
        EXPECT_LE(all.longest, RecordStream::kCapacity);
        for (const std::string& record : all.records) {
            const auto lead = static_cast<unsigned char>(record[record.rfind('|', 10) + 1]);
            EXPECT_TRUE(lead < 0x80 || lead >= 0xC0) << "a character was cut";
        }
    }
}

TEST(RecordStream, HandsOnRecordsOfManyLinesInPartsThatShareTheVerdict) {
    std::string log = Entry("I", "f()", "dump");
    while (log.size() < 3 * RecordStream::kCapacity) log += "  0x0000: 00 01 02 03 04 05 06 07 08 09 0a 0b 0c 0d\n";
    const std::string last = Entry("E", "g()", "failed");
    Collector all, errors;
    FeedAll(log + last, all, {}, 4096);
    EXPECT_TRUE(all.bytes == log + last);
    EXPECT_GE(all.records.size(), 4u);
    FeedAll(log + last, errors, {kLogError, {}, "", ""}, 4096);
    EXPECT_EQ(errors.bytes, last);
}

TEST(RecordStream, SettleHandsOnWholeLinesAndLateOnesGoWithTheEntry) {
    const RecordFilter filter{kLogUnknown, {}, "f()", ""};
    Collector collector;
    RecordStream stream(filter, collector);
    const std::string entry = Entry("I", "f()", "one");
    Feed(stream, entry + "  half", 1000);
    stream.Settle();
    EXPECT_EQ(collector.bytes, entry);
    Feed(stream, " and half\n" + Entry("I", "g()", "two") + "  late", 1000);
    stream.Settle();
    Feed(stream, "r\n", 1000);
    stream.End();
    EXPECT_EQ(collector.bytes, entry + "  half and half\n");
}

TEST(RecordStream, EndsWithAFileWhoseLastLineMayBeCutOff) {
    const RecordFilter filter{kLogError, {}, "", ""};
    Collector collector;
    RecordStream stream(filter, collector);
    const std::string cut = "2026-11-17 23:22:01.123 <00000001> [10E1] E f(): cut off";
    Feed(stream, Entry("I", "f()", "one") + cut, 1000);
    stream.End();
    Feed(stream, "head of another file\n" + Entry("E", "f()", "two"), 1000);
    stream.End();
    EXPECT_EQ(collector.records, (std::vector<std::string>{"first|" + cut, "first|" + Entry("E", "f()", "two")}));
}

}  // namespace
