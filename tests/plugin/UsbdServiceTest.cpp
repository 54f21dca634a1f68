#include <thread>

#include "tests/plugin/PluginUnderTest.h"

namespace {

class Service : public PluginUnderTest {
protected:
    void PowerOn(const std::string& enabled) {
        FakeUsbd::Reset();
        log.Clear();
        SetArgs(enabled, "TRUE");
        ASSERT_TRUE(gUsbRedirectionClient.PowerOnUsbdService());
        ASSERT_NE(FakeUsbd::WaitForStart(), "");
    }

    static UsbRedirectionClient::UsbdInitReport Report() {
        KxMutexGuard guard(gUsbdStateLock);
        return gUsbRedirectionClient.GetUsbdInitReport();
    }
};

TEST_F(Service, RegistersTheMessageCallbacksOnlyForTheVirtualChannel) {
    const Texts registrations{"Usbd_SetPostMsgCb", "Usbd_SetPostMsgFastCb", "Usbd_SetPostHIDOptMsgFastCb",
                              "Usbd_SetSendAsyncMsgCb"};
    for (const auto& [enabled, channel] :
         std::vector<std::pair<std::string, std::string>>{{"tRuE", "virtual"}, {"", "MFW"}, {"TRUEX", "MFW"}}) {
        SCOPED_TRACE(enabled);
        PowerOn(enabled);
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
    for (const auto& [load, starts] :
         std::vector<std::pair<std::string, bool>>{{"true", true}, {"", false}, {"1", false}}) {
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
        Exit();
        EXPECT_TRUE(log.Has(kLogInfo, "Power off Usbd service.\n"));
        EXPECT_EQ(log.Has(kLogInfo, "Usbd service thread is not started.\n"), !starts);
        EXPECT_EQ(FakeUsbd::Count("StopUsbd 0"), starts ? 1u : 0u);
    }
}

TEST_F(Service, StartsTheDaemonLaterThroughTheDispatchRecordAndOnlyOnce) {
    SetArgs("TRUE", "FALSE");
    Init();
    ASSERT_EQ(dispatch.version, 1u);
    dispatch.startUsbd();
    EXPECT_NE(FakeUsbd::WaitForStart(), "");
    EXPECT_TRUE(log.Has(kLogInfo, "QSCUsbRedirectionPlugin_StartUsbd: enter\n"));
    EXPECT_TRUE(log.Has(kLogInfo, "QSCUsbRedirectionPlugin_StartUsbd: done\n"));
    EXPECT_EQ(log.Count("Usbd service thread has already started.\n"), 0u);
    EXPECT_TRUE(gUsbRedirectionClient.PowerOnUsbdService());
    EXPECT_TRUE(log.Has(kLogInfo, "Usbd service thread has already started.\n"));
    Exit();
    EXPECT_EQ(log.Count("Thread Usbd Service Thread started"), 1u);
}

TEST_F(Service, WithoutStartupArgumentsNoDaemonRuns) {
    Init();
    EXPECT_EQ(log.Texts(kLogError), Texts{"Startup args are not correctly received.\n"});
    log.Clear();
    dispatch.startUsbd();
    EXPECT_TRUE(log.WaitFor(kLogInfo, "Thread Usbd Service Thread exited by callback"));
    EXPECT_EQ(log.Texts(kLogError), Texts{"Startup args are not correctly received.\n"});
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
                          {"-1", false, "StopUsbd 0", "No need to stop Usbd service, Usbd service init failed.\n"},
                          {"0", true, "StopUsbd 1", "Stopping Usbd service.\n"}}) {
        SCOPED_TRACE(c.line);
        PowerOn("TRUE");
        if (*c.report) FakeUsbd::Registered().initDone(std::atoi(c.report));
        EXPECT_EQ(gUsbRedirectionClient.PowerOffUsbdService(), c.result);
        EXPECT_EQ(FakeUsbd::Texts().back(), c.stop);
        EXPECT_TRUE(log.Has(kLogInfo, c.line));
        EXPECT_FALSE(gUsbStartupArgs || Report().done || Report().succeeded);
        EXPECT_EQ(Report().identity, "");
    }
}

TEST_F(Service, WaitsOnForADaemonThatDoesNotStopInTime) {
    PowerOn("TRUE");
    FakeUsbd::SetMsgWaitTimeout(-993);
    FakeUsbd::HoldStop(true);
    std::thread stopper([] { gUsbRedirectionClient.PowerOffUsbdService(); });
    EXPECT_TRUE(log.WaitFor(kLogWarn, "Usbd service thread cannot be stopped within expected 7ms.\n"));
    EXPECT_FALSE(log.Has(kLogInfo, "Exited Usbd service.\n"));
    FakeUsbd::HoldStop(false);
    stopper.join();
    EXPECT_TRUE(log.Has(kLogInfo, "Exited Usbd service.\n"));
}

TEST_F(Service, AReportAheadOfTheIdentityChangesOnlyTheResult) {
    SetArgs("TRUE", "FALSE");
    for (const int result : {5, 0}) {
        gUsbRedirectionClient.UsbdInitDoneNotifyCb(result);
        EXPECT_TRUE(log.Has(kLogInfo, std::string("Usbd service init ") + (result ? "failed.\n" : "succeeded.\n")));
        EXPECT_TRUE(log.Has(kLogDebug, "Invalid Negotiated Desktop PID, so no more init operation.\n"));
        EXPECT_FALSE(Report().done);
        EXPECT_EQ(Report().succeeded, result == 0);
    }
    EXPECT_FALSE(gUsbRedirectionClient.PowerOffUsbdService());
    EXPECT_TRUE(log.Has(kLogInfo, "Usbd service thread is not started.\n"));
    EXPECT_FALSE(gUsbStartupArgs || Report().succeeded) << "cleared also without a thread";
}

TEST_F(Service, InMfwModeTheReportGoesOutAtOnceWithAnIdentityCutToItsRoom) {
    const std::string pid = "@" + std::string(299, 'p'), cut = pid.substr(0, 255);
    SetArgs("FALSE", "TRUE", pid);
    Init();
    EXPECT_EQ(FakeUsbd::WaitForStart(), "StartUsbd 3 velmora-client-usbd FALSE " + cut);
    FakeUsbd::Registered().initDone(0);
    EXPECT_EQ(Heard(), Texts{"init done " + cut});
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
            Exit();
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

TEST_F(Service, TheEmbeddingClientsAnswersComeBackAndAReportNobodyTakesIsLostAfterAnErrorLine) {
    Start("FALSE");
    EXPECT_EQ(QSCUsbRedirectionPlugin_Init([](const char* pid) -> Bool { return *pid ? 7 : 8; },
                                           [](Bool enabled) -> Bool { return enabled ? 5 : 6; }, nullptr),
              TRUE);
    EXPECT_TRUE(log.Has(kLogInfo, "QSCUsbRedirectionPlugin_Init: Plugin initialization.\n"));
    EXPECT_EQ(QSCUsbRedirectionPlugin_SetUsbdInitDone(TRUE, "pid"), 7);
    EXPECT_EQ(QSCUsbRedirectionPlugin_SetUsbdInitDone(FALSE, "pid"), 8);
    EXPECT_EQ(QSCUsbRedirectionPlugin_SetUsbdDevicesFilterStatus(FALSE), 6);
    EXPECT_EQ(QSCUsbRedirectionPlugin_Exit(), TRUE);
    EXPECT_TRUE(log.Has(kLogInfo, "QSCUsbRedirectionPlugin_Exit: Plugin exiting.\n"));
    FakeUsbd::Registered().initDone(0);
    EXPECT_EQ(QSCUsbRedirectionPlugin_SetUsbdDevicesFilterStatus(TRUE), FALSE);
    EXPECT_EQ(log.Texts(kLogError),
              (Texts{"QSCUsbRedirectionPlugin_SetUsbdInitDone: gSetUsbdInitDone is unexpectedly NULL.\n",
                     "QSCUsbRedirectionPlugin_SetUsbdDevicesFilterStatus: gSetUsbdDevicesFilterStatus is unexpectedly "
                     "NULL.\n"}));
}

}  // namespace
