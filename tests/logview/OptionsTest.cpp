#include "tools/logview/Options.h"

#include <gtest/gtest.h>

namespace {

using Args = std::vector<std::string>;

TEST(ViewOptions, ReadsValuesInBothFormsAndKeepsTheLast) {
    const auto parsed =
        ParseViewOptions({"-f", "--level", "error", "--thread=0xaB", "a.log", "--function", "Run", "--text=x=y",
                          "--summary", "--json", "--color=always", "--level=Warn", "--", "-f"});
    const auto* options = std::get_if<ViewOptions>(&parsed);
    ASSERT_TRUE(options) << std::get<std::string>(parsed);
    EXPECT_TRUE(options->follow && options->summary && options->json);
    EXPECT_EQ(options->filter.level, kLogWarn);
    EXPECT_EQ(options->filter.thread, 0xABu);
    EXPECT_EQ(options->filter.function, "Run");
    EXPECT_EQ(options->filter.text, "x=y");
    EXPECT_EQ(options->color, ColorChoice::Always);
    EXPECT_EQ(options->files, (Args{"a.log", "-f"}));
}

TEST(ViewOptions, RefusesWhatItCannotUseWithALineThatNamesIt) {
    const std::pair<Args, const char*> cases[] = {
        {{"--json"}, "no log file named"},
        {{"-x", "a"}, "unknown option -x"},
        {{"a", "--level"}, "--level needs a value"},
        {{"a", "--level", "loud"},
         "--level takes ALWAYS, ERROR, WARN, INFO, DEBUG, TRACE, VERBOSE or NEVER, not \"loud\""},
        {{"a", "--thread", "xyz"}, "--thread takes a hexadecimal thread number, not \"xyz\""},
        {{"a", "--thread", "0x"}, "--thread takes a hexadecimal thread number, not \"0x\""},
        {{"a", "--thread", "11112222333344445"},
         "--thread takes a hexadecimal thread number, not \"11112222333344445\""},
        {{"a", "--text="}, "--text takes some text, not \"\""},
        {{"a", "--color", "red"}, "--color takes auto, always or never, not \"red\""},
        {{"a", "--json=1"}, "--json takes no value"},
        {{""}, "an empty file name"},
    };
    for (const auto& [args, why] : cases) {
        const auto parsed = ParseViewOptions(args);
        const auto* error = std::get_if<std::string>(&parsed);
        ASSERT_TRUE(error) << why;
        EXPECT_EQ(*error, why);
    }
}

}  // namespace
