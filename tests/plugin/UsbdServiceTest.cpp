#include <thread>

#include "tests/plugin/PluginUnderTest.h"

namespace {

using Service = PluginUnderTest;

TEST_F(Service, RegistersTheMessageCallbacksOnlyForTheVirtualChannel) {
    const Texts registrations{"Usbd_SetPostMsgCb", "Usbd_SetPostMsgFastCb", "Usbd_SetPostHIDOptMsgFastCb",
                              "Usbd_SetSendAsyncMsgCb"};
    for (const auto& [enabled, channel] : std::vector<std::pair<std::string, std::string>>{
             {"TRUE", "virtual"}, {"tRuE", "virtual"}, {"", "MFW"}, {"FALSE", "MFW"}, {"TRUEX", "MFW"}}) {
        SCOPED_TRACE(enabled);
        FakeUsbd::Reset();
        log.Clear();
        SetArgs(enabled, "TRUE");
        ASSERT_TRUE(gUsbRedirectionClient.PowerOnUsbdService());
        ASSERT_NE(FakeUsbd::WaitForStart(), "");
        Texts expected{"SetUsbdInitDoneNotifCb"};
        if (channel == "virtual") expected.insert(expected.end(), registrations.begin(), registrations.end());
        expected.push_back("StartUsbd 3 velmora-client-usbd " + enabled + " " + Identity());
        EXPECT_EQ(FakeUsbd::Texts(), expected);
        EXPECT_TRUE(log.Has(kLogInfo, "Switch to " + channel + " channel.\n"));
        EXPECT_TRUE(
            log.Has(kLogInfo, "USB Over VChannel enabled string is " + enabled + " and desktop PID is desk.\n"));
        EXPECT_EQ(gUsbRedirectionClient.IsUsbVChannelEnabled(), channel == "virtual");
        gUsbRedirectionClient.PowerOffUsbdService();
        EXPECT_TRUE(log.Has(kLogInfo, "Exited Usbd service.\n"));
    }
}

TEST_F(Service, StartsTheDaemonWithThePluginOnlyIfAskedTo) {
    for (const auto& [load, starts] : std::vector<std::pair<std::string, bool>>{
             {"TRUE", true}, {"true", true}, {"", false}, {"FALSE", false}, {"1", false}}) {
        SCOPED_TRACE(load);
        FakeUsbd::Reset();
        log.Clear();
        SetArgs("TRUE", load);
        Init();
        EXPECT_TRUE(log.Has(kLogInfo, "Power on Usbd service.\n"));
        EXPECT_TRUE(log.Has(kLogInfo, starts ? "Need to load Usbd.\n" : "No need to load Usbd.\n"));
        if (starts) {
            EXPECT_NE(FakeUsbd::WaitForStart(), "");
        }
        EXPECT_EQ(QSCService_PluginExit(), TRUE);
        EXPECT_TRUE(log.Has(kLogInfo, "Power off Usbd service.\n"));
        EXPECT_EQ(log.Count("Usbd service thread is not started.\n"), starts ? 0u : 1u);
        EXPECT_EQ(FakeUsbd::Count("StopUsbd 0"), starts ? 1u : 0u);
        EXPECT_FALSE(gUsbStartupArgs);
    }
    initialised = false;
}

TEST_F(Service, StartsTheDaemonLaterThroughTheDispatchRecordAndOnlyOnce) {
    SetArgs("TRUE", "FALSE");
    Init();
    ASSERT_EQ(dispatch.version, 1u);
    ASSERT_NE(dispatch.startUsbd, nullptr);
    dispatch.startUsbd();
    EXPECT_NE(FakeUsbd::WaitForStart(), "");
    EXPECT_TRUE(log.Has(kLogInfo, "QSCUsbRedirectionPlugin_StartUsbd: enter\n"));
    EXPECT_TRUE(log.Has(kLogInfo, "QSCUsbRedirectionPlugin_StartUsbd: done\n"));
    EXPECT_EQ(log.Count("Usbd service thread has already started.\n"), 0u);
    EXPECT_TRUE(gUsbRedirectionClient.PowerOnUsbdService());
    EXPECT_TRUE(log.Has(kLogInfo, "Usbd service thread has already started.\n"));
    QSCService_PluginExit();
    initialised = false;
    EXPECT_EQ(log.Count("Thread Usbd Service Thread started"), 1u);
}

TEST_F(Service, WithoutStartupArgumentsNoDaemonRuns) {
    Init();
    EXPECT_EQ(log.Texts(kLogError), Texts{"Startup args are not correctly received.\n"});
    log.Clear();
    dispatch.startUsbd();
    EXPECT_TRUE(log.WaitFor(kLogInfo, "Thread Usbd Service Thread exited by callback"));
    EXPECT_EQ(log.Texts(kLogError), Texts{"Startup args are not correctly received.\n"});
    EXPECT_TRUE(gUsbRedirectionClient.PowerOnUsbdService());
    EXPECT_TRUE(log.Has(kLogInfo, "Usbd service thread has already started.\n"));
    EXPECT_FALSE(gUsbRedirectionClient.PowerOffUsbdService());
    EXPECT_EQ(FakeUsbd::Texts(), Texts{"StopUsbd 0"});
}

TEST_F(Service, StopsAsTheDaemonsReportDemands) {
    struct Case {
        const char* report;
        bool result;
        const char *stop, *line;
    };
    for (const Case& c : {Case{"", false, "StopUsbd 0", "No need to stop Usbd service, Usbd service init timeout.\n"},
                          {"1", false, "StopUsbd 0", "No need to stop Usbd service, Usbd service init failed.\n"},
                          {"-1", false, "StopUsbd 0", "No need to stop Usbd service, Usbd service init failed.\n"},
                          {"0", true, "StopUsbd 1", "Stopping Usbd service.\n"}}) {
        SCOPED_TRACE(c.line);
        FakeUsbd::Reset();
        log.Clear();
        SetArgs("TRUE", "TRUE");
        ASSERT_TRUE(gUsbRedirectionClient.PowerOnUsbdService());
        ASSERT_NE(FakeUsbd::WaitForStart(), "");
        if (*c.report) FakeUsbd::Registered().initDone(std::atoi(c.report));
        EXPECT_EQ(gUsbRedirectionClient.PowerOffUsbdService(), c.result);
        EXPECT_EQ(FakeUsbd::Texts().back(), c.stop);
        EXPECT_TRUE(log.Has(kLogInfo, c.line));
        EXPECT_FALSE(gUsbStartupArgs);
        KxMutexGuard guard(gUsbdStateLock);
        const auto report = gUsbRedirectionClient.GetUsbdInitReport();
        EXPECT_FALSE(report.done || report.succeeded);
        EXPECT_EQ(report.identity, "");
    }
}

TEST_F(Service, PowerOffClearsEverythingAlsoWithoutAThread) {
    SetArgs("TRUE", "FALSE");
    gUsbRedirectionClient.UsbdInitDoneNotifyCb(0);
    EXPECT_FALSE(gUsbRedirectionClient.PowerOffUsbdService());
    EXPECT_TRUE(log.Has(kLogInfo, "Usbd service thread is not started.\n"));
    EXPECT_FALSE(gUsbStartupArgs);
    KxMutexGuard guard(gUsbdStateLock);
    EXPECT_FALSE(gUsbRedirectionClient.GetUsbdInitReport().succeeded);
}

TEST_F(Service, WaitsOnForADaemonThatDoesNotStopInTime) {
    SetArgs("TRUE", "TRUE");
    FakeUsbd::SetMsgWaitTimeout(-993);
    FakeUsbd::HoldStop(true);
    ASSERT_TRUE(gUsbRedirectionClient.PowerOnUsbdService());
    ASSERT_NE(FakeUsbd::WaitForStart(), "");
    std::thread stopper([] { gUsbRedirectionClient.PowerOffUsbdService(); });
    EXPECT_TRUE(log.WaitFor(kLogWarn, "Usbd service thread cannot be stopped within expected 7ms.\n"));
    EXPECT_FALSE(log.Has(kLogInfo, "Exited Usbd service.\n"));
    FakeUsbd::HoldStop(false);
    stopper.join();
    EXPECT_TRUE(log.Has(kLogInfo, "Exited Usbd service.\n"));
}

TEST_F(Service, ADaemonIdentityIsCutToItsRoom) {
    const std::string pid = "@" + std::string(299, 'p');
    SetArgs("FALSE", "TRUE", pid);
    Init();
    const std::string cut = pid.substr(0, 255);
    EXPECT_EQ(FakeUsbd::WaitForStart(), "StartUsbd 3 velmora-client-usbd FALSE " + cut);
    FakeUsbd::Registered().initDone(0);
    EXPECT_EQ(Heard(), Texts{"init done " + cut});
}

TEST_F(Service, AReportAheadOfTheIdentityChangesOnlyTheResult) {
    gUsbRedirectionClient.UsbdInitDoneNotifyCb(0);
    EXPECT_TRUE(log.Has(kLogInfo, "Usbd service init succeeded.\n"));
    EXPECT_TRUE(log.Has(kLogDebug, "Invalid Negotiated Desktop PID, so no more init operation.\n"));
    {
        KxMutexGuard guard(gUsbdStateLock);
        EXPECT_FALSE(gUsbRedirectionClient.GetUsbdInitReport().done);
        EXPECT_TRUE(gUsbRedirectionClient.GetUsbdInitReport().succeeded);
    }
    gUsbRedirectionClient.UsbdInitDoneNotifyCb(5);
    EXPECT_TRUE(log.Has(kLogInfo, "Usbd service init failed.\n"));
    KxMutexGuard guard(gUsbdStateLock);
    EXPECT_FALSE(gUsbRedirectionClient.GetUsbdInitReport().succeeded);
}

TEST_F(Service, InMfwModeTheReportGoesOutAtOnce) {
    Start("FALSE");
    FakeUsbd::Registered().initDone(0);
    EXPECT_EQ(Heard(), Texts{"init done " + Identity()});
    CreateInstance();
    ASSERT_TRUE(service.BringUp());
    EXPECT_EQ(FakeUsbd::Count("Usbd_NotifyUsbVirtualChannelAvailable"), 0u);
    EXPECT_FALSE(log.Has(kLogInfo, "Transport is ready now.\n"));
    EXPECT_EQ(Heard().size(), 1u);
}

TEST_F(Service, TheSecondOfReportAndReadyTellsTheClient) {
    for (int result : {0, 3}) {
        for (bool reportFirst : {false, true}) {
            SCOPED_TRACE(testing::Message() << result << " " << reportFirst);
            SetUp();
            Start();
            CreateInstance();
            reportFirst ? daemon.initDone(result) : void(service.BringUp());
            EXPECT_EQ(Heard(), Texts{});
            reportFirst ? void(service.BringUp()) : daemon.initDone(result);
            EXPECT_EQ(Heard(), Texts{"init done " + (result == 0 ? Identity() : "")});
            EXPECT_EQ(FakeUsbd::Count("Usbd_NotifyUsbVirtualChannelAvailable"), 1u);
            service.BringDown();
            DestroyInstance();
            QSCService_PluginExit();
            initialised = false;
        }
    }
}

TEST_F(Service, EachRiseOfTheChannelRepeatsTheReport) {
    Start();
    CreateInstance();
    daemon.initDone(0);
    ASSERT_TRUE(service.BringUp());
    service.BringDown();
    EXPECT_TRUE(log.Has(kLogInfo, "Transport is not ready now.\n"));
    ASSERT_TRUE(service.BringUp());
    EXPECT_EQ(Heard(), (Texts{"init done " + Identity(), "init done " + Identity()}));
    EXPECT_EQ(FakeUsbd::Count("Usbd_NotifyUsbVirtualChannelAvailable"), 2u);
    service.BringDown();
    daemon.initDone(0);
    EXPECT_EQ(Heard().size(), 3u);
    DestroyInstance();
    daemon.initDone(0);
    EXPECT_EQ(Heard().size(), 3u);
    CreateInstance();
    ASSERT_TRUE(service.BringUp());
    EXPECT_EQ(Heard().size(), 4u);
}

TEST_F(Service, AReportNobodyTakesIsLostAfterAnErrorLine) {
    Start("FALSE");
    EXPECT_EQ(QSCUsbRedirectionPlugin_Exit(), TRUE);
    EXPECT_TRUE(log.Has(kLogInfo, "QSCUsbRedirectionPlugin_Exit: Plugin exiting.\n"));
    FakeUsbd::Registered().initDone(0);
    EXPECT_EQ(QSCUsbRedirectionPlugin_SetUsbdDevicesFilterStatus(TRUE), FALSE);
    EXPECT_EQ(log.Texts(kLogError),
              (Texts{"QSCUsbRedirectionPlugin_SetUsbdInitDone: gSetUsbdInitDone is unexpectedly NULL.\n",
                     "QSCUsbRedirectionPlugin_SetUsbdDevicesFilterStatus: gSetUsbdDevicesFilterStatus is unexpectedly "
                     "NULL.\n"}));
}

TEST_F(Service, TheEmbeddingClientsAnswersComeBack) {
    EXPECT_EQ(QSCUsbRedirectionPlugin_Init([](const char* pid) -> Bool { return *pid ? 7 : 8; },
                                           [](Bool enabled) -> Bool { return enabled ? 5 : 6; }, nullptr),
              TRUE);
    EXPECT_TRUE(log.Has(kLogInfo, "QSCUsbRedirectionPlugin_Init: Plugin initialization.\n"));
    EXPECT_EQ(QSCUsbRedirectionPlugin_SetUsbdInitDone(TRUE, "pid"), 7);
    EXPECT_EQ(QSCUsbRedirectionPlugin_SetUsbdInitDone(FALSE, "pid"), 8);
    EXPECT_EQ(QSCUsbRedirectionPlugin_SetUsbdDevicesFilterStatus(TRUE), 5);
    EXPECT_EQ(QSCUsbRedirectionPlugin_SetUsbdDevicesFilterStatus(FALSE), 6);
}

TEST_F(Service, EntryPointsAreTraced) {
    struct Case {
        const char* name;
        void (*call)();
    };
    for (const Case& c :
         {Case{"QSCService_PluginExit", [] { QSCService_PluginExit(); }},
          {"QSCService_PluginCreateInstance",
           [] {
               void* instance = nullptr;
               EXPECT_EQ(QSCService_PluginCreateInstance(nullptr, &instance), FALSE);
           }},
          {"QSCService_PluginDestroyInstance", [] { EXPECT_EQ(QSCService_PluginDestroyInstance(nullptr), FALSE); }}}) {
        log.Clear();
        c.call();
        const auto lines = log.Lines();
        ASSERT_GE(lines.size(), 2u) << c.name;
        for (const LogCapture::Line& line : {lines.front(), lines.back()}) {
            EXPECT_EQ(line.level, kLogInfo);
            EXPECT_NE(line.function.find(c.name), std::string::npos) << line.function;
        }
    }
}

}  // namespace
