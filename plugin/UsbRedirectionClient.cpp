#include "plugin/UsbRedirectionClient.h"

#include <strings.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <utility>

#include "logging/Log.h"

namespace {

constexpr char kDaemonName[] = "velmora-client-usbd";
constexpr char kLogComponent[] = "UsbRedirectionClient";
constexpr char kLogRegistryPath[] = "Software\\Corvex\\Velmora\\QSCService\\Plugins\\UsbRedirection";
constexpr int64_t kStopMarginMS = 1000;  // beyond the time that the daemon may wait for a message

bool IsTrue(const std::string& argument) {
    return strcasecmp(argument.c_str(), "TRUE") == 0;
}

bool UsbdServiceThreadProc(void* userData, KxThread*) {
    if (!userData) return false;
    return static_cast<UsbRedirectionClient*>(userData)->InitUsbdService();
}

}  // namespace

extern "C" {

static void Usbdlib_InitDoneCb(UsbdInitResult result) noexcept {
    gUsbRedirectionClient.UsbdInitDoneNotifyCb(result);
}

}  // extern "C"

UsbRedirectionClient::UsbRedirectionClient()
    : RPCManager("UsbRedirection", "UsbRedirControlObj", "UsbRedirDataObj", "UsbRedirDataObjTcp", RefCountOff) {}

bool UsbRedirectionClient::OnPluginInit() {
    return usbRedirectionLogger.Start(kLogComponent, kLogRegistryPath);
}

bool UsbRedirectionClient::OnPluginExit() {
    usbRedirectionLogger.Stop();
    return true;
}

void UsbRedirectionClient::OnClientInit() {
    LOG(Info, "Power on Usbd service.\n");
    if (IsLoadUsbdNeeded()) PowerOnUsbdService();
}

void UsbRedirectionClient::OnClientExit() {
    LOG(Info, "Power off Usbd service.\n");
    PowerOffUsbdService();
}

RPCPluginInstance* UsbRedirectionClient::OnCreateInstance() {
    LOG(Info, "Request for UsbRedirectionClientPlugin to be created.\n");
    auto* instance = new UsbRedirectionClientPlugin(this);
    ExchangePlugin(instance);
    return instance;
}

void UsbRedirectionClient::OnDestroyInstance(RCPtr<RPCPluginInstance> instance) {
    LOG(Info, "Request for UsbRedirectionClientPlugin to be destroyed.\n");
    KxMutexGuard guard(gInstanceLock);
    ClearPlugin(instance.Get());
}

// An earlier instance goes out with its own reference, so that its end never falls under pluginLock.
RCPtr<UsbRedirectionClientPlugin> UsbRedirectionClient::ExchangePlugin(UsbRedirectionClientPlugin* instance) {
    KxMutexGuard guard(pluginLock);
    RCPtr<UsbRedirectionClientPlugin> earlier = plugin;
    plugin = instance;
    currentPlugin.store(instance, std::memory_order_release);
    return earlier;
}

// In one step with the comparison: another instance may come in between.
RCPtr<UsbRedirectionClientPlugin> UsbRedirectionClient::ClearPlugin(const RPCPluginInstance* instance) {
    KxMutexGuard guard(pluginLock);
    if (plugin.Get() != instance) return {};
    currentPlugin.store(nullptr, std::memory_order_release);
    return std::move(plugin);
}

RCPtr<UsbRedirectionClientPlugin> UsbRedirectionClient::HoldPlugin() {
    KxMutexGuard guard(pluginLock);
    return plugin;
}

bool UsbRedirectionClient::IsLoadUsbdNeeded() {
    if (!gUsbStartupArgs) {
        LOG(Error, "Startup args are not correctly received.\n");
        return false;
    }
    const bool needed = IsTrue(gUsbStartupArgs->isLoadUsbdNeeded);
    LOG(Info, "%s to load Usbd.\n", needed ? "Need" : "No need");
    return needed;
}

bool UsbRedirectionClient::IsUsbVChannelEnabled() {
    if (!gUsbStartupArgs) {
        LOG(Error, "Startup args are not correctly received.\n");
        return false;
    }
    const bool enabled = IsTrue(gUsbStartupArgs->isUsbVChannelEnabled);
    LOG(Info, "Usb Virtual Channel is %s.\n", enabled ? "Enabled" : "Disabled");
    return enabled;
}

bool UsbRedirectionClient::PowerOnUsbdService() {
    if (usbdThread) {
        LOG(Info, "Usbd service thread has already started.\n");
        return true;
    }
    usbdThread = std::make_unique<KxThread>("Usbd Service Thread");
    if (!usbdThread->Start(UsbdServiceThreadProc, this, kInfinite, false)) {
        LOG(Error, "Failed to start the usbd service thread.\n");
        usbdThread.reset();
        return false;
    }
    return true;
}

bool UsbRedirectionClient::InitUsbdService() {
    LOG(Info, "Begin to initialize Usbd.\n");
    if (!gUsbStartupArgs) {
        LOG(Error, "Startup args are not correctly received.\n");
        return false;
    }
    LOG(Info, "USB Over VChannel enabled string is %s and desktop PID is %s.\n",
        gUsbStartupArgs->isUsbVChannelEnabled.c_str(), gUsbStartupArgs->pid.c_str());
    std::string name = kDaemonName;
    std::string enabled = gUsbStartupArgs->isUsbVChannelEnabled;
    std::string identity = MakeIdentity();
    char* argv[] = {name.data(), enabled.data(), identity.data(), nullptr};

    SetUsbdInitDoneNotifCb(Usbdlib_InitDoneCb);
    if (IsTrue(enabled)) {
        LOG(Info, "Switch to virtual channel.\n");
        Usbd_SetPostMsgCb(Usbdlib_PostMsgCb);
        Usbd_SetPostMsgFastCb(Usbdlib_PostMsgFastCb);
        Usbd_SetPostHIDOptMsgFastCb(Usbdlib_PostHIDOptMsgFastCb);
        Usbd_SetSendAsyncMsgCb(Usbdlib_SendAsyncMsgCb);
    } else {
        LOG(Info, "Switch to MFW channel.\n");
    }
    LOG(Info, "Starting Usbd service.\n");
    StartUsbd(3, argv);
    LOG(Info, "Exited Usbd service.\n");
    return true;
}

std::string UsbRedirectionClient::MakeIdentity() {
    KxMutexGuard guard(gUsbdStateLock);
    negotiatedDesktopPid = std::make_unique<std::array<char, kIdentitySize>>();
    std::snprintf(negotiatedDesktopPid->data(), kIdentitySize, "%s%c%u", gUsbStartupArgs->pid.c_str(), '@',
                  static_cast<unsigned>(getpid()));
    return negotiatedDesktopPid->data();
}

// The instance is held so that it can't go while its flag is read, and let go after the lock. It is taken under
// gUsbdStateLock, under which OnReady sets the flag and reads the report: one of the two sees what the other has done.
void UsbRedirectionClient::UsbdInitDoneNotifyCb(UsbdInitResult result) {
    RCPtr<UsbRedirectionClientPlugin> instance;
    KxMutexGuard guard(gUsbdStateLock);
    usbdInitSucceeded = result == 0;
    LOG(Info, "Usbd service init %s.\n", usbdInitSucceeded ? "succeeded" : "failed");
    if (!negotiatedDesktopPid) {
        LOG(Debug, "Invalid Negotiated Desktop PID, so no more init operation.\n");
        return;
    }
    usbdInitDone = true;
    if (IsUsbVChannelEnabled()) {
        instance = HoldPlugin();
        if (!instance || !instance->IsTransportReady()) return;
    }
    QSCUsbRedirectionPlugin_SetUsbdInitDone(usbdInitSucceeded ? TRUE : FALSE, negotiatedDesktopPid->data());
}

UsbRedirectionClient::UsbdInitReport UsbRedirectionClient::GetUsbdInitReport() const {
    return {usbdInitDone, usbdInitSucceeded, negotiatedDesktopPid ? negotiatedDesktopPid->data() : ""};
}

bool UsbRedirectionClient::PowerOffUsbdService() {
    bool stopped = false;
    if (usbdThread) {
        stopped = StopUsbdThread(__PRETTY_FUNCTION__);
    } else {
        LOG(Info, "Usbd service thread is not started.\n");
    }
    KxMutexGuard guard(gUsbdStateLock);
    usbdInitDone = false;
    usbdInitSucceeded = false;
    gUsbStartupArgs.reset();
    negotiatedDesktopPid.reset();
    return stopped;
}

bool UsbRedirectionClient::StopUsbdThread(const char* signature) {
    UsbdInitReport report;
    {
        KxMutexGuard guard(gUsbdStateLock);
        report = GetUsbdInitReport();
    }
    const int waitMS = static_cast<int>(
        std::clamp<int64_t>(int64_t{Usbd_GetMmfwMsgWaitTimeout()} + kStopMarginMS, 0, std::numeric_limits<int>::max()));
    const bool running = report.done && report.succeeded;
    if (running) {
        LOG_AS(signature, Info, "Stopping Usbd service.\n");
        StopUsbd(1);
    } else {
        StopUsbd(0);
        LOG_AS(signature, Info, "No need to stop Usbd service, Usbd service init %s.\n",
               report.done ? "failed" : "timeout");
    }
    if (!usbdThread->Stop(static_cast<DWORD>(waitMS))) {
        LOG_AS(signature, Warn, "Usbd service thread cannot be stopped within expected %dms.\n", waitMS);
        usbdThread->Stop(kInfinite);
    }
    usbdThread.reset();
    return running;
}
