#include <cstring>

#include "logging/Log.h"
#include "plugin/PluginGlobals.h"
#include "plugin/UsbRedirectionClient.h"
#include "plugin/UsbRedirectionPlugin.h"

namespace {

constexpr char kTokenName[] = "UsbRedirection";

Bool ToBool(bool value) {
    return value ? TRUE : FALSE;
}

}  // namespace

extern "C" {

Bool QSCService_PluginSetStartupArgs(const char* args) noexcept {
    if (!args) return FALSE;
    StartupArgsMap map;
    map.Parse(args);
    if (!gUsbStartupArgs) gUsbStartupArgs = std::make_unique<UsbStartupArgs>();
    UsbStartupArgs& startup = *gUsbStartupArgs;
    map.Get("VChan.UsbOverVChan.enabled", startup.isUsbVChannelEnabled);
    map.Get("VChan.UsbOverVChan.desktopPID", startup.pid);
    StartupArgs_CleanUpPid(startup.pid);
    map.Get("VChan.UsbOverVChan.isLoadUsbdNeeded", startup.isLoadUsbdNeeded);
    LOG(Info, "isUsbVChannelEnabled = %s, pid = %s, isLoadUsbdNeeded = %s\n", startup.isUsbVChannelEnabled.c_str(),
        startup.pid.c_str(), startup.isLoadUsbdNeeded.c_str());
    return TRUE;
}

Bool QSCService_PluginGetTokenName(char* buffer, int size) noexcept {
    FUNCTION_TRACE(Info, "\n");
    if (!buffer || size < 1) return FALSE;
    std::strncpy(buffer, kTokenName, static_cast<size_t>(size) - 1);
    buffer[size - 1] = '\0';
    functionTrace.SetExitMessage(kLogInfo, "\"%s\"\n", kTokenName);
    return TRUE;
}

Bool QSCService_PluginInit(QSC_SERVICE_QUERY_INTERFACE queryInterface) noexcept {
    FUNCTION_TRACE(Info, "\n");
    return ToBool(gUsbRedirectionClient.QSCPluginInit(queryInterface));
}

Bool QSCService_PluginExit() noexcept {
    FUNCTION_TRACE(Info, "\n");
    return ToBool(gUsbRedirectionClient.QSCPluginExit());
}

Bool QSCService_PluginCreateInstance(void* hChannel, void** instance) noexcept {
    FUNCTION_TRACE(Info, "\n");
    return ToBool(gUsbRedirectionClient.QSCPluginCreateInstance(hChannel, instance));
}

Bool QSCService_PluginDestroyInstance(void* instance) noexcept {
    FUNCTION_TRACE(Info, "\n");
    return ToBool(gUsbRedirectionClient.QSCPluginDestroyInstance(instance));
}

static void QSCUsbRedirectionPlugin_StartUsbd() noexcept {
    LOG(Info, "%s: enter\n", __func__);
    gUsbRedirectionClient.PowerOnUsbdService();
    LOG(Info, "%s: done\n", __func__);
}

Bool QSCUsbRedirectionPlugin_Init(RMCControlSetUsbdInitDone setUsbdInitDone,
                                  RMCControlSetUsbdDevicesFilterStatus setUsbdDevicesFilterStatus,
                                  QSCUsbRedirectionPluginDispatch* dispatch) noexcept {
    LOG(Info, "%s: Plugin initialization.\n", __func__);
    gSetUsbdInitDone.store(setUsbdInitDone, std::memory_order_release);
    gSetUsbdDevicesFilterStatus.store(setUsbdDevicesFilterStatus, std::memory_order_release);
    if (dispatch) {
        dispatch->version = 1;
        dispatch->startUsbd = QSCUsbRedirectionPlugin_StartUsbd;
    }
    return TRUE;
}

Bool QSCUsbRedirectionPlugin_Exit() noexcept {
    LOG(Info, "%s: Plugin exiting.\n", __func__);
    gSetUsbdInitDone.store(nullptr, std::memory_order_release);
    gSetUsbdDevicesFilterStatus.store(nullptr, std::memory_order_release);
    return TRUE;
}

Bool QSCUsbRedirectionPlugin_SetUsbdInitDone(Bool succeeded, const char* pid) noexcept {
    const RMCControlSetUsbdInitDone report = gSetUsbdInitDone.load(std::memory_order_acquire);
    if (!report) {
        LOG(Error, "%s: gSetUsbdInitDone is unexpectedly NULL.\n", __func__);
        return FALSE;
    }
    return report(succeeded ? pid : "");
}

Bool QSCUsbRedirectionPlugin_SetUsbdDevicesFilterStatus(Bool enabled) noexcept {
    const RMCControlSetUsbdDevicesFilterStatus report = gSetUsbdDevicesFilterStatus.load(std::memory_order_acquire);
    if (!report) {
        LOG(Error, "%s: gSetUsbdDevicesFilterStatus is unexpectedly NULL.\n", __func__);
        return FALSE;
    }
    return report(enabled);
}

}  // extern "C"
