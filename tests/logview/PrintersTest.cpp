#include "tools/logview/Printers.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "tests/logview/ViewSupport.h"

namespace {

using nlohmann::json;

// Each line has to be an object.
std::vector<json> Objects(std::string_view log) {
    CapturedOutput output;
    JsonPrinter printer(output.Target());
    FeedAll(log, printer);
    printer.Finish();
    std::vector<json> objects;
    std::istringstream lines(output.Text());
    for (std::string line; std::getline(lines, line);) objects.push_back(json::parse(line));
    return objects;
}

std::string AsPlain(std::string_view log, bool color, bool escape) {
    CapturedOutput output;
    PlainPrinter printer(output.Target(), color, escape);
    FeedAll(log, printer);
    return output.Text();
}

TEST(JsonPrinter, GivesOneObjectForEachEntryAndNotice) {
    const std::string disk =
        "\n2026-11-17 23:22:01.123 <00000001> [10E1] ******* Free disk space is 1.0MB - Logging suspended *******\n";
    const auto objects =
        Objects("lost\n" + Entry("W", "A::Run()", "say \"a\\b\"\tto\r") + "  0x0000: 00\n" + kSeparatorLine +
                Entry("E", "b()", "") + kBannerLines + disk + kSeparatorLine + "stray\n\n");
    const json stamped = {{"time", "2026-11-17 23:22:01.123"}, {"thread", "00000001"}, {"process", 0x10E1}};
    std::vector<json> expected = {
        {{"text", "lost"}},
        {{"level", "WARN"}, {"function", "A::Run()"}, {"text", "say \"a\\b\"\tto\r\n  0x0000: 00"}},
        {{"level", "ERROR"}, {"function", "b()"}, {"text", ""}},
        {{"notice", "NEW LOG SESSION STARTING"}},
        {{"notice", "Free disk space is 1.0MB - Logging suspended"}},
        {{"text", "stray"}},
    };
    for (const size_t i : {1, 2, 4}) expected[i].update(stamped);
    EXPECT_EQ(objects, expected);
}

TEST(JsonPrinter, StaysValidForAnyBytes) {
    const std::string bad = "\uFFFD", good = "\x01\x1f\x7f \xE2\x82\xAC \xF0\x9F\x98\x80 \xC3\xA9";
    using Case = std::pair<std::string, std::string>;
    for (const Case& c : {Case{std::string("a\0b", 3), std::string("a\0b", 3)},
                          {good, good},
                          {"\x80x", bad + "x"},
                          {"\xFFx\xFE", bad + "x" + bad},
                          {"\xC3", bad},
                          {"\xC3(", bad + "("},
                          {"\xC0\xAF", bad + bad},
                          {"\xED\xA0\x80", bad + bad + bad},
                          {"\xE0\x80\x80", bad + bad + bad},
                          {"\xF4\x90\x80\x80", bad + bad + bad + bad},
                          {"\xF0\x9F\x98", bad + bad + bad}}) {
        const auto objects = Objects(Entry("I", "f()", c.first));
        ASSERT_EQ(objects.size(), 1u);
        EXPECT_EQ(objects[0]["text"], c.second);
    }
    EXPECT_EQ(Objects(Entry("I", "\"\xFF", "x"))[0]["function"], "\"" + bad);
}

TEST(JsonPrinter, KeepsAnEntryOfManyMegabytesInOneObject) {
    std::string text;
    while (text.size() < 3 * RecordStream::kCapacity) text += "\xE2\x82\xAC one row\n";
    const auto objects = Objects(Entry("I", "f()", text) + Entry("I", "f()", "next"));
    ASSERT_EQ(objects.size(), 2u);
    text.pop_back();
    EXPECT_TRUE(objects[0]["text"] == text);
}

TEST(PlainPrinter, ChangesNothingWithoutColor) {
    const std::string log = "head\n" + Entry("I", "f()", std::string("\0\x1b[2J\xFF", 6)) + kBannerLines;
    EXPECT_EQ(AsPlain(log, false, false), log);
    EXPECT_EQ(AsPlain("no line feed", false, false), "no line feed\n");
}

TEST(PlainPrinter, ColorsLevelAndFunctionOnly) {
    const std::string stamp = "2026-11-17 23:22:01.123 <00000001> [10E1] ";
    EXPECT_EQ(AsPlain(Entry("E", "f()", "text") + "  more\n", true, false),
              stamp + "\x1b[1;31mE f():\x1b[0m text\n  more\n");
    EXPECT_EQ(AsPlain(kSeparatorLine, true, false), "\x1b[2m" + std::string(39, '-') + "\x1b[0m\n");
}

TEST(PlainPrinter, DisarmsControlCharacters) {
    const std::string text = std::string("\x1b]0;x\x07\0\x7f\r a\tb", 13) + " \xC2\x9B \xC3\xA9\xC2\xA9\n";
    EXPECT_EQ(AsPlain(text, false, true), "\\x1B]0;x\\x07\\x00\\x7F\\x0D a\tb \\x9B \xC3\xA9\xC2\xA9\n");
}

}  // namespace
