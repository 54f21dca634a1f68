#include "plugin/PluginGlobals.h"

#include "plugin/UsbRedirectionClient.h"

std::unique_ptr<UsbStartupArgs> gUsbStartupArgs;
std::atomic<RMCControlSetUsbdInitDone> gSetUsbdInitDone{nullptr};
std::atomic<RMCControlSetUsbdDevicesFilterStatus> gSetUsbdDevicesFilterStatus{nullptr};

KxMutex gUsbdStateLock(false, "");
KxMutex gInstanceLock(false, "");
UsbRedirectionClient gUsbRedirectionClient;
