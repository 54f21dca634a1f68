#include "plugin/StartupArgs.h"

#include <gtest/gtest.h>

#include <cstring>
#include <utility>
#include <vector>

#include "plugin/PluginGlobals.h"
#include "tests/support/LogCapture.h"

namespace {

TEST(StartupArgsMap, TakesThePairsAheadOfTheFirstFault) {
    struct Case {
        const char* text;
        bool whole;
        std::vector<std::pair<std::string, std::string>> pairs;
        std::vector<std::string> absent;
    };
    for (const Case& c : std::vector<Case>{
             {"", false, {}, {""}},
             {",", true, {{"", ""}}, {}},
             {"a,1,", false, {{"a", "1"}}, {""}},
             {"a,1,b", false, {{"a", "1"}}, {"b"}},
             {"a,1,b,2,a,3", true, {{"a", "3"}, {"b", "2"}}, {}},
             {"a/2Eb,/5Cx/5cy/2F/2C z", true, {{"a.b", "\\x\\y/, z"}}, {}},
             {"a,1,b,/4", false, {{"a", "1"}}, {"b"}},
             {"a,1,b,2/", false, {{"a", "1"}}, {"b"}},
             {"a,1,/G1,2,c,3", false, {{"a", "1"}}, {"c"}},
             {"a,1,b,/1g,c,3", false, {{"a", "1"}}, {"b", "c"}},
             {"a,1,/4,1b,c,3", false, {{"a", "1"}}, {"c", "A"}},
             {"a,/00/fF", true, {{"a", std::string("\0\xFF", 2)}}, {}},
         }) {
        SCOPED_TRACE(c.text);
        StartupArgsMap map;
        EXPECT_EQ(map.Parse(c.text), c.whole);
        for (const auto& [key, value] : c.pairs) {
            std::string found;
            EXPECT_TRUE(map.Get(key, found)) << key;
            EXPECT_EQ(found, value);
        }
        for (const std::string& key : c.absent) {
            std::string found = "untouched";
            EXPECT_FALSE(map.Get(key, found)) << key;
            EXPECT_EQ(found, "untouched");
        }
    }
}

TEST(StartupArgs, CutsADesktopIdentifierButKeepsItsTail) {
    struct Case {
        std::string pid, cleaned;
    };
    const std::string head(128, 'h');
    for (const Case& c : std::vector<Case>{
             {"", ""},
             {"a\\b\\", "a/b/"},
             {head, head},
             {head + "x", head},
             {head + "@tail", head + "@tail"},
             {head + "x@tail", head + "@tail"},
             {head + "x@yy@tail", head + "@tail"},
             {"@" + head + "x", "@" + head + "x"},
         }) {
        std::string pid = c.pid;
        StartupArgs_CleanUpPid(pid);
        EXPECT_EQ(pid, c.cleaned) << c.pid;
    }
}

TEST(SetStartupArgs, ChangesOnlyTheArgumentsThatACallCarries) {
    gUsbStartupArgs.reset();
    EXPECT_EQ(QSCService_PluginSetStartupArgs(nullptr), FALSE);
    EXPECT_FALSE(gUsbStartupArgs);
    struct Case {
        const char *args, *enabled, *pid, *load;
    };
    for (const Case& c : std::vector<Case>{
             {"", "", "", ""},
             {"VChan/2EUsbOverVChan/2Eenabled,TRUE,VChan.UsbOverVChan.desktopPID,a/5Cb,"
              "VChan/2eUsbOverVChan/2eisLoadUsbdNeeded,true",
              "TRUE", "a/b", "true"},
             {"VChan.UsbOverVChan.isLoadUsbdNeeded,no,VChan.UsbOverVChan.enabled,/x", "TRUE", "a/b", "no"},
             {"vchan.usbovervchan.enabled,lower", "TRUE", "a/b", "no"},
             {"VChan.UsbOverVChan.desktopPID,,other", "TRUE", "", "no"},
         }) {
        SCOPED_TRACE(c.args);
        LogCapture log;
        EXPECT_EQ(QSCService_PluginSetStartupArgs(c.args), TRUE);
        ASSERT_TRUE(gUsbStartupArgs);
        EXPECT_EQ(gUsbStartupArgs->isUsbVChannelEnabled, c.enabled);
        EXPECT_EQ(gUsbStartupArgs->pid, c.pid);
        EXPECT_EQ(gUsbStartupArgs->isLoadUsbdNeeded, c.load);
        EXPECT_EQ(log.Texts(kLogInfo),
                  std::vector<std::string>{std::string("isUsbVChannelEnabled = ") + c.enabled + ", pid = " + c.pid +
                                           ", isLoadUsbdNeeded = " + c.load + "\n"});
    }
    gUsbStartupArgs.reset();
}

TEST(PluginGetTokenName, FillsExactlyTheBufferItIsGiven) {
    struct Case {
        int size;
        const char* text;
    };
    for (const Case& c : {Case{1, ""}, {14, "UsbRedirectio"}, {15, "UsbRedirection"}, {20, "UsbRedirection"}}) {
        SCOPED_TRACE(c.size);
        char buffer[32];
        std::memset(buffer, '#', sizeof buffer);
        LogCapture log;
        EXPECT_EQ(QSCService_PluginGetTokenName(buffer, c.size), TRUE);
        EXPECT_STREQ(buffer, c.text);
        EXPECT_TRUE(std::all_of(buffer + std::strlen(c.text), buffer + c.size, [](char b) { return b == '\0'; }));
        EXPECT_EQ(buffer[c.size], '#');
        ASSERT_EQ(log.Lines().size(), 2u);
        EXPECT_NE(log.Lines()[1].text.find("\"UsbRedirection\""), std::string::npos);
    }
    char buffer[4] = "abc";
    EXPECT_EQ(QSCService_PluginGetTokenName(buffer, 0), FALSE);
    EXPECT_EQ(QSCService_PluginGetTokenName(buffer, -3), FALSE);
    EXPECT_EQ(QSCService_PluginGetTokenName(nullptr, 4), FALSE);
    EXPECT_STREQ(buffer, "abc");
}

}  // namespace
