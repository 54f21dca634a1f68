// The plug-in between a scripted service, a fake daemon and an embedding client that records what it hears. A test
// takes it as far up as it needs; the teardown brings it down again in the required order.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <mutex>
#include <string>
#include <vector>

#include "plugin/PluginGlobals.h"
#include "plugin/UsbRedirectionClient.h"
#include "plugin/UsbRedirectionPlugin.h"
#include "standin/qscservice/ScriptedService.h"
#include "tests/support/FakeUsbd.h"
#include "tests/support/LogCapture.h"

class PluginUnderTest : public testing::Test {
protected:
    using Texts = std::vector<std::string>;

    static constexpr char kData[] = "UsbRedirDataObj";

    // The plug-in's own log goes to a folder of the suite's.
    static void SetUpTestSuite() {
        char pattern[] = "/tmp/plugin-XXXXXX";
        tempFolder = mkdtemp(pattern);
        setenv("TMPDIR", tempFolder.c_str(), 1);
        setenv("USER", "tester", 1);
    }
    static void TearDownTestSuite() { std::filesystem::remove_all(tempFolder); }

    void SetUp() override {
        FakeUsbd::Reset();
        std::lock_guard guard(heardLock);
        heard.clear();
    }

    void TearDown() override {
        Exit();
        QSCUsbRedirectionPlugin_Exit();
        EXPECT_EQ(service.UnsentContexts(), 0u);
    }

    void Exit() {
        DestroyInstance();
        if (initialised) QSCService_PluginExit();
        initialised = false;
    }

    static void SetArgs(const std::string& enabled, const std::string& load, const std::string& pid = "desk") {
        QSCService_PluginSetStartupArgs(("VChan.UsbOverVChan.enabled," + enabled + ",VChan.UsbOverVChan.desktopPID," +
                                         pid + ",VChan.UsbOverVChan.isLoadUsbdNeeded," + load)
                                            .c_str());
    }

    void Init() {
        QSCUsbRedirectionPlugin_Init(HearInitDone, HearFilterStatus, &dispatch);
        QSCService_PluginInit(service.Query());
        initialised = true;
        // The logger's thread tells of its start in its own time: not in the middle of what a test looks at.
        EXPECT_TRUE(log.WaitForPrefix(kLogInfo, "Enter - Logger: "));
    }

    // The daemon runs and has its callbacks; there is no instance.
    void Start(const std::string& enabled = "TRUE") {
        SetArgs(enabled, "TRUE");
        Init();
        ASSERT_NE(FakeUsbd::WaitForStart(), "");
        daemon = FakeUsbd::Registered();
    }

    void CreateInstance() { ASSERT_EQ(QSCService_PluginCreateInstance(service.Handle(), &instance), TRUE); }

    void DestroyInstance() {
        if (instance) QSCService_PluginDestroyInstance(instance);
        instance = nullptr;
    }

    // Daemon, instance and channel are ready and nothing of the way there is left in the records.
    void StartReady() {
        Start();
        CreateInstance();
        ASSERT_TRUE(service.BringUp());
        ForgetRecords();
    }

    void ForgetRecords() {
        log.Clear();
        service.ClearCalls();
        std::lock_guard guard(heardLock);
        heard.clear();
    }

    static Texts Heard() {
        std::lock_guard guard(heardLock);
        return heard;
    }

    static std::string Identity(const std::string& pid = "desk") { return pid + "@" + std::to_string(getpid()); }

    static Bool HearInitDone(const char* pid) {
        std::lock_guard guard(heardLock);
        heard.push_back(std::string("init done ") + pid);
        return TRUE;
    }

    static Bool HearFilterStatus(Bool enabled) {
        std::lock_guard guard(heardLock);
        heard.push_back(enabled ? "filter on" : "filter off");
        return TRUE;
    }

    LogCapture log;
    qscservice::ScriptedService service;
    QSCUsbRedirectionPluginDispatch dispatch{};
    FakeUsbd::Callbacks daemon;
    void* instance = nullptr;
    bool initialised = false;

    inline static std::string tempFolder;

private:
    inline static std::mutex heardLock;  // guards heard
    inline static Texts heard;           // what the embedding client was told, in order
};
