#include "standin/qscservice/PluginHost.h"

#include <gtest/gtest.h>

namespace {

using namespace qscservice;

TEST(PluginHostTest, RefusesALibraryThatIsNoPlugin) {
    PluginHost host;
    std::string error;
    EXPECT_FALSE(host.Load("/nowhere/at/all.so", &error));
    EXPECT_NE(error.find("cannot load the plug-in: /nowhere/at/all.so"), error.npos) << error;
    const std::string other = BUILD_FOLDER "/lib/libqscservice.so";
    EXPECT_FALSE(host.Load(other, &error));
    EXPECT_EQ(error, other + " lacks the export QSCService_PluginSetStartupArgs");
    EXPECT_FALSE(host.Init(&error));
    EXPECT_EQ(error, "no plug-in is loaded");
}

TEST(PluginHostTest, EscapesStartupArguments) {
    struct Case {
        std::vector<std::pair<std::string, std::string>> args;
        const char* text;
    };
    for (const Case& c : std::vector<Case>{{{}, ""},
                                           {{{"key", "value"}, {"", "x"}}, "key,value,,x"},
                                           {{{"VChan.UsbOverVChan", "a,b\\c/d"}}, "VChan/2EUsbOverVChan,a/2Cb/5Cc/2Fd"},
                                           {{{"z\xC3\xA4Z09", std::string("\0\xFF", 2)}}, "z/C3/A4Z09,/00/FF"}}) {
        EXPECT_EQ(PluginHost::EncodeStartupArgs(c.args), c.text);
    }
}

}  // namespace
