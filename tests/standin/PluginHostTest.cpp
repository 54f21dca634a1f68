#include "standin/qscservice/PluginHost.h"

#include <gtest/gtest.h>

#include "standin/qscservice/ServiceTables.h"

namespace {

using namespace qscservice;

constexpr char kPlugin[] = BUILD_FOLDER "/lib/libhosted_plugin.so";
constexpr char kNoPlugin[] = BUILD_FOLDER "/lib/libqscservice.so";

class PluginHostTest : public testing::Test {
protected:
    void Load() {
        ASSERT_TRUE(host.Load(kPlugin, &error)) << error;
        fail = reinterpret_cast<void (*)(const char*)>(host.Symbol("HostedPlugin_Fail", &error));
        ASSERT_TRUE(fail) << error;
    }

    void ExpectRefused(bool done, const std::string& text) const {
        EXPECT_FALSE(done) << text;
        EXPECT_EQ(error, text);
    }

    PluginHost host;
    void (*fail)(const char* entryPoint) = nullptr;
    std::string error, token;
};

TEST_F(PluginHostTest, RefusesWhatIsOutOfOrderWithAClearError) {
    const char* none = "no plug-in is loaded";
    const char* idle = "the plug-in is not initialised";
    ExpectRefused(host.SetStartupArgs("", &error), none);
    ExpectRefused(host.GetTokenName(8, &token, &error), none);
    ExpectRefused(host.Symbol("main", &error) != nullptr, none);
    ExpectRefused(host.Init(&error), none);
    ExpectRefused(host.CreateInstance(&error), idle);
    ExpectRefused(host.DestroyInstance(&error), "there is no instance");
    ExpectRefused(host.Exit(&error), idle);
    Load();
    ExpectRefused(host.Load(kPlugin, &error), "a plug-in is loaded already");
    ExpectRefused(host.Symbol("no_such", &error) != nullptr, std::string(kPlugin) + " lacks the export no_such");
    ASSERT_TRUE(host.Init(&error)) << error;
    ExpectRefused(host.Init(&error), "the plug-in is initialised already");
    ExpectRefused(host.SetStartupArgs("", &error), "startup arguments come before Init");
    ASSERT_TRUE(host.CreateInstance(&error)) << error;
    ExpectRefused(host.CreateInstance(&error), "there is an instance already");
    ExpectRefused(host.Exit(&error), "the instance is to be destroyed before Exit");
}

TEST_F(PluginHostTest, ReportsAnEntryPointThatFailsAndGoesOn) {
    const std::string failed = std::string(" of ") + kPlugin + " failed";
    Load();
    fail("SetStartupArgs");
    ExpectRefused(host.SetStartupArgs("", &error), "QSCService_PluginSetStartupArgs" + failed);
    fail("GetTokenName");
    ExpectRefused(host.GetTokenName(8, &token, &error), "QSCService_PluginGetTokenName" + failed);
    fail("Init");
    ExpectRefused(host.Init(&error), "QSCService_PluginInit" + failed);
    EXPECT_TRUE(host.Init(&error)) << error;
    fail("CreateInstance");
    ExpectRefused(host.CreateInstance(&error), "QSCService_PluginCreateInstance" + failed);
    EXPECT_EQ(host.Instance(), nullptr);
    EXPECT_TRUE(host.CreateInstance(&error)) << error;

    fail("DestroyInstance");
    std::vector<std::string> reported;
    SetErrorHandler([&](std::string_view line) { reported.emplace_back(line); });
    host.Stop();
    SetErrorHandler({});
    EXPECT_EQ(reported, std::vector<std::string>{"QSCService_PluginDestroyInstance" + failed});
    ExpectRefused(host.SetStartupArgs("", &error), "no plug-in is loaded");
}

TEST_F(PluginHostTest, RefusesALibraryThatIsNoPlugin) {
    EXPECT_FALSE(host.Load("/nowhere/at/all.so", &error));
    EXPECT_NE(error.find("cannot load the plug-in: /nowhere/at/all.so"), error.npos) << error;
    ExpectRefused(host.Load(kNoPlugin, &error),
                  std::string(kNoPlugin) + " lacks the export QSCService_PluginSetStartupArgs");
    EXPECT_TRUE(host.Load(kPlugin, &error)) << error;
}

TEST_F(PluginHostTest, ReadsTheTokenIntoABufferOfAnySize) {
    Load();
    for (const auto& [size, expected] : std::vector<std::pair<int, const char*>>{{1, ""}, {4, "Hos"}, {64, "Hosted"}}) {
        EXPECT_TRUE(host.GetTokenName(size, &token, &error)) << error;
        EXPECT_EQ(token, expected);
    }
    ExpectRefused(host.GetTokenName(0, &token, &error), "the token needs a buffer of at least 1 byte");
    ExpectRefused(host.GetTokenName(100, &token, &error), "the plug-in did not terminate its token");
}

TEST(PluginHostStartupArgs, AreEscaped) {
    struct Case {
        std::vector<std::pair<std::string, std::string>> args;
        std::string text;
    };
    for (const Case& c : std::vector<Case>{{{}, ""},
                                           {{{"key", "value"}, {"", "x"}}, "key,value,,x"},
                                           {{{"VChan.UsbOverVChan", "a,b\\c/d"}}, "VChan/2EUsbOverVChan,a/2Cb/5Cc/2Fd"},
                                           {{{"z\xC3\xA4Z09", std::string("\0\xFF", 2)}}, "z/C3/A4Z09,/00/FF"}}) {
        EXPECT_EQ(PluginHost::EncodeStartupArgs(c.args), c.text);
    }
}

}  // namespace
