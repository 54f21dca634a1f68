#include "standin/qscservice/PluginHost.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <functional>

#include "standin/qscservice/ServiceEnd.h"
#include "standin/qscservice/ServiceTables.h"
#include "tests/standin/HostedPlugin.h"

namespace {

using namespace qscservice;

using Texts = std::vector<std::string>;

constexpr char kPlugin[] = BUILD_FOLDER "/lib/libhosted_plugin.so";
constexpr char kNoPlugin[] = BUILD_FOLDER "/lib/libqscservice.so";

// The plug-in's journal, emptied: a library may stay in memory when it is unloaded.
HostedPluginJournal& JournalOf(PluginHost& host) {
    std::string error;
    void* symbol = host.Symbol("HostedPlugin_Journal", &error);
    EXPECT_NE(symbol, nullptr) << error;
    HostedPluginJournal& journal = *reinterpret_cast<HostedPluginJournalGetter>(symbol)();
    const std::lock_guard lock(journal.mutex);
    journal.lines.clear();
    return journal;
}

Texts Lines(HostedPluginJournal& journal) {
    const std::lock_guard lock(journal.mutex);
    return journal.lines;
}

// The lines so far, once one of them is this.
Texts WaitForLine(HostedPluginJournal& journal, const std::string& line) {
    std::unique_lock lock(journal.mutex);
    const bool found = journal.changed.wait_for(lock, std::chrono::seconds(20), [&] {
        return std::find(journal.lines.begin(), journal.lines.end(), line) != journal.lines.end();
    });
    EXPECT_TRUE(found) << line;
    return journal.lines;
}

TEST(PluginHostTest, DrivesThePluginInOrderAndMoreThanOnce) {
    PluginHost host;
    std::string error;
    ASSERT_TRUE(host.Load(kPlugin, &error)) << error;
    HostedPluginJournal& journal = JournalOf(host);
    Texts expected;
    for (int round = 0; round < 2; ++round) {
        ASSERT_TRUE(host.SetStartupArgs("a,b", &error)) << error;
        ASSERT_TRUE(host.Init(&error)) << error;
        EXPECT_EQ(host.Instance(), nullptr);
        ASSERT_TRUE(host.CreateInstance(&error)) << error;
        EXPECT_EQ(host.Instance(), reinterpret_cast<void*>(0x51));
        EXPECT_EQ(journal.hChannel, host.Channel().Handle());
        ASSERT_TRUE(host.DestroyInstance(&error)) << error;
        EXPECT_EQ(host.Instance(), nullptr);
        ASSERT_TRUE(host.Exit(&error)) << error;
        for (const char* line :
             {"SetStartupArgs a,b", "Init table 1", "CreateInstance", "DestroyInstance sink 1", "Exit"})
            expected.push_back(line);
    }
    EXPECT_EQ(Lines(journal), expected);
    EXPECT_TRUE(host.Unload(&error)) << error;
    EXPECT_TRUE(host.Unload(&error)) << error;
}

TEST(PluginHostTest, RefusesWhatIsOutOfOrderWithAClearError) {
    PluginHost host;
    std::string token;
    struct Step {
        const char* name;
        std::function<bool(std::string*)> run;
    };
    const Step load = {"Load", [&](std::string* e) { return host.Load(kPlugin, e); }};
    const Step args = {"SetStartupArgs", [&](std::string* e) { return host.SetStartupArgs("", e); }};
    const Step init = {"Init", [&](std::string* e) { return host.Init(e); }};
    const Step create = {"CreateInstance", [&](std::string* e) { return host.CreateInstance(e); }};
    const Step destroy = {"DestroyInstance", [&](std::string* e) { return host.DestroyInstance(e); }};
    const Step exit = {"Exit", [&](std::string* e) { return host.Exit(e); }};
    const Step name = {"GetTokenName", [&](std::string* e) { return host.GetTokenName(8, &token, e); }};
    const Step noRoom = {"GetTokenName", [&](std::string* e) { return host.GetTokenName(0, &token, e); }};
    const Step symbol = {"Symbol", [&](std::string* e) { return host.Symbol("no_such_export", e) != nullptr; }};
    struct Case {
        Step step;
        std::string error;  // empty: it works
    };
    const std::string none = "no plug-in is loaded";
    const std::string idle = "the plug-in is not initialised";
    for (const Case& c : std::vector<Case>{
             {args, none},
             {name, none},
             {symbol, none},
             {init, none},
             {create, idle},
             {destroy, "there is no instance"},
             {exit, idle},
             {load, ""},
             {load, "a plug-in is loaded already"},
             {noRoom, "the token needs a buffer of at least 1 byte"},
             {symbol, std::string(kPlugin) + " lacks the export no_such_export"},
             {name, ""},
             {create, idle},
             {exit, idle},
             {init, ""},
             {init, "the plug-in is initialised already"},
             {args, "startup arguments come before Init"},
             {destroy, "there is no instance"},
             {create, ""},
             {create, "there is an instance already"},
             {exit, "the instance is to be destroyed before Exit"},
             {destroy, ""},
             {exit, ""},
         }) {
        std::string error;
        EXPECT_EQ(c.step.run(&error), c.error.empty()) << c.step.name;
        EXPECT_EQ(error, c.error) << c.step.name;
    }
    EXPECT_FALSE(PluginHost().Init(nullptr));
}

TEST(PluginHostTest, ReportsAnEntryPointThatFailsAndGoesOn) {
    const std::string of = std::string(" of ") + kPlugin + " failed";
    PluginHost host;
    std::string error;
    ASSERT_TRUE(host.Load(kPlugin, &error)) << error;
    HostedPluginJournal& journal = JournalOf(host);
    const auto fail = [&](const std::string& entryPoint) {
        const std::lock_guard lock(journal.mutex);
        journal.failing = entryPoint;
    };
    std::string token;
    fail("SetStartupArgs");
    EXPECT_FALSE(host.SetStartupArgs("", &error));
    EXPECT_EQ(error, "QSCService_PluginSetStartupArgs" + of);
    fail("GetTokenName");
    EXPECT_FALSE(host.GetTokenName(8, &token, &error));
    EXPECT_EQ(error, "QSCService_PluginGetTokenName" + of);
    fail("Init");
    EXPECT_FALSE(host.Init(&error));
    EXPECT_EQ(error, "QSCService_PluginInit" + of);
    fail("CreateInstance");
    EXPECT_FALSE(host.CreateInstance(&error));
    EXPECT_EQ(error, "the plug-in is not initialised");
    EXPECT_TRUE(host.Init(&error));
    EXPECT_FALSE(host.CreateInstance(&error));
    EXPECT_EQ(error, "QSCService_PluginCreateInstance" + of);
    EXPECT_EQ(host.Instance(), nullptr);

    fail("DestroyInstance");
    EXPECT_TRUE(host.CreateInstance(&error));
    Texts reported;
    SetErrorHandler([&](std::string_view line) { reported.emplace_back(line); });
    host.Stop();
    SetErrorHandler({});
    EXPECT_EQ(reported, Texts{"QSCService_PluginDestroyInstance" + of});
    EXPECT_FALSE(host.SetStartupArgs("", &error));
    EXPECT_EQ(error, "no plug-in is loaded");
}

TEST(PluginHostTest, RefusesALibraryThatIsNoPlugin) {
    PluginHost host;
    std::string error;
    EXPECT_FALSE(host.Load("/nowhere/at/all.so", &error));
    EXPECT_NE(error.find("cannot load the plug-in: /nowhere/at/all.so"), error.npos) << error;
    EXPECT_FALSE(host.Load(kNoPlugin, &error));
    EXPECT_EQ(error, std::string(kNoPlugin) + " lacks the export QSCService_PluginSetStartupArgs");
    EXPECT_TRUE(host.Load(kPlugin, &error)) << error;
}

TEST(PluginHostTest, ReadsTheTokenIntoABufferOfAnySize) {
    PluginHost host;
    std::string error, token;
    ASSERT_TRUE(host.Load(kPlugin, &error)) << error;
    for (const auto& [size, expected] :
         std::vector<std::pair<int, const char*>>{{1, ""}, {4, "Hos"}, {7, "Hosted"}, {64, "Hosted"}}) {
        EXPECT_TRUE(host.GetTokenName(size, &token, &error)) << error;
        EXPECT_EQ(token, expected);
    }
    EXPECT_FALSE(host.GetTokenName(100, &token, &error));
    EXPECT_EQ(error, "the plug-in did not terminate its token");
    EXPECT_EQ(token, "Hosted");
}

TEST(PluginHostTest, TheInstanceRunsOnTheHostsChannel) {
    ServiceEnd::Options options;
    options.channel.sessionType = QSC_SESSION_STORM;
    ServiceEnd agent({}, options);
    PluginHost host;
    std::string error;
    ASSERT_TRUE(agent.Channel().Listen("unix:", &error)) << error;
    ASSERT_TRUE(host.Load(kPlugin, &error)) << error;
    HostedPluginJournal& journal = JournalOf(host);
    ASSERT_TRUE(host.Init(&error) && host.CreateInstance(&error)) << error;
    ASSERT_TRUE(host.Channel().Dial(agent.Channel().Address(), &error)) << error;
    EXPECT_EQ(
        WaitForLine(journal, "peer UsbRedirControlObj"),
        (Texts{"Init table 1", "CreateInstance", "connection 2", "channel 2 session 1", "peer UsbRedirControlObj"}));
    host.Channel().Interrupt();
    EXPECT_EQ(WaitForLine(journal, "connection 0").back(), "connection 0");
    EXPECT_NE(journal.deliveredOn, std::this_thread::get_id());
    host.Stop();
    EXPECT_TRUE(agent.WaitClosed(20000));
}

TEST(PluginHostTest, APolledChannelDeliversOnTheThreadOfInit) {
    ServiceEnd agent({});
    PluginHost host({.delivery = Delivery::Polled});
    std::string error;
    ASSERT_TRUE(agent.Channel().Listen("unix:", &error)) << error;
    ASSERT_TRUE(host.Load(kPlugin, &error)) << error;
    HostedPluginJournal& journal = JournalOf(host);
    ASSERT_TRUE(host.Init(&error) && host.CreateInstance(&error)) << error;
    ASSERT_TRUE(host.Channel().Dial(agent.Channel().Address(), &error)) << error;
    const size_t before = Lines(journal).size();
    std::thread(journal.poll).join();
    EXPECT_EQ(Lines(journal).size(), before);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (Lines(journal).back() != "peer UsbRedirControlObj" && std::chrono::steady_clock::now() < deadline) {
        host.Channel().PollWait(10);
        EXPECT_EQ(journal.deliveredOn, std::this_thread::get_id());
    }
    EXPECT_EQ(Lines(journal).back(), "peer UsbRedirControlObj");
    agent.Channel().Interrupt();
    while (Lines(journal).back() != "connection 0" && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::yield();
        journal.poll();
    }
    EXPECT_EQ(Lines(journal).back(), "connection 0");
}

TEST(PluginHostTest, StartupArgumentsAreEscaped) {
    struct Case {
        std::vector<std::pair<std::string, std::string>> args;
        std::string text;
    };
    for (const Case& c : std::vector<Case>{{{}, ""},
                                           {{{"", ""}}, ","},
                                           {{{"key", "value"}, {"", "x"}}, "key,value,,x"},
                                           {{{"VChan.UsbOverVChan", "a,b\\c/d"}}, "VChan/2EUsbOverVChan,a/2Cb/5Cc/2Fd"},
                                           {{{"z\xC3\xA4Z09", std::string("\0\xFF", 2)}}, "z/C3/A4Z09,/00/FF"}}) {
        EXPECT_EQ(PluginHost::EncodeStartupArgs(c.args), c.text);
    }
}

}  // namespace
