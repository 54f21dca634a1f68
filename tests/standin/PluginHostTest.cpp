#include "standin/qscservice/PluginHost.h"

#include <gtest/gtest.h>

#include "standin/qscservice/ServiceTables.h"
#include "tests/standin/HostedPlugin.h"

namespace {

using namespace qscservice;

using Texts = std::vector<std::string>;

constexpr char kPlugin[] = BUILD_FOLDER "/lib/libhosted_plugin.so";
constexpr char kNoPlugin[] = BUILD_FOLDER "/lib/libqscservice.so";

class PluginHostTest : public testing::Test {
protected:
    // A library may stay in memory when it is unloaded, so its journal is emptied.
    void Load() {
        ASSERT_TRUE(host.Load(kPlugin, &error)) << error;
        void* symbol = host.Symbol("HostedPlugin_Journal", &error);
        ASSERT_NE(symbol, nullptr) << error;
        journal = reinterpret_cast<HostedPluginJournalGetter>(symbol)();
        journal->lines.clear();
    }

    void ExpectRefused(bool done, const std::string& text) const {
        EXPECT_FALSE(done) << text;
        EXPECT_EQ(error, text);
    }

    PluginHost host;
    HostedPluginJournal* journal = nullptr;
    std::string error, token;
};

TEST_F(PluginHostTest, DrivesThePluginInOrder) {
    Load();
    ASSERT_TRUE(host.SetStartupArgs("a,b", &error)) << error;
    ASSERT_TRUE(host.Init(&error)) << error;
    ASSERT_TRUE(host.CreateInstance(&error)) << error;
    EXPECT_EQ(host.Instance(), reinterpret_cast<void*>(0x51));
    EXPECT_EQ(journal->hChannel, host.Channel().Handle());
    ASSERT_TRUE(host.DestroyInstance(&error)) << error;
    EXPECT_EQ(host.Instance(), nullptr);
    ASSERT_TRUE(host.Exit(&error)) << error;
    EXPECT_EQ(journal->lines,
              (Texts{"SetStartupArgs a,b", "Init table 1", "CreateInstance", "DestroyInstance sink 1", "Exit"}));
}

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
    const std::string of = std::string(" of ") + kPlugin + " failed";
    Load();
    journal->failing = "SetStartupArgs";
    ExpectRefused(host.SetStartupArgs("", &error), "QSCService_PluginSetStartupArgs" + of);
    journal->failing = "GetTokenName";
    ExpectRefused(host.GetTokenName(8, &token, &error), "QSCService_PluginGetTokenName" + of);
    journal->failing = "Init";
    ExpectRefused(host.Init(&error), "QSCService_PluginInit" + of);
    EXPECT_TRUE(host.Init(&error)) << error;
    journal->failing = "CreateInstance";
    ExpectRefused(host.CreateInstance(&error), "QSCService_PluginCreateInstance" + of);
    EXPECT_EQ(host.Instance(), nullptr);
    EXPECT_TRUE(host.CreateInstance(&error)) << error;

    journal->failing = "DestroyInstance";
    Texts reported;
    SetErrorHandler([&](std::string_view line) { reported.emplace_back(line); });
    host.Stop();
    SetErrorHandler({});
    EXPECT_EQ(reported, Texts{"QSCService_PluginDestroyInstance" + of});
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
