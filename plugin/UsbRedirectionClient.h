// The manager of the plug-in. It decides whether the daemon runs and which channel it uses, gives it a thread, and
// tells the embedding client when the daemon's initialisation has ended.
#pragma once

#include <array>
#include <atomic>
#include <memory>
#include <string>

#include "plugin/PluginGlobals.h"
#include "plugin/UsbRedirectionClientPlugin.h"
#include "plugin/UsbRedirectionLogger.h"
#include "plugin/Usbd.h"
#include "rpc/RPCManager.h"
#include "runtime/KxThread.h"

// The embedding client is told once the daemon has reported and, if the virtual channel is used, the channel has been
// ready; whichever comes second tells it. Each later rise of the channel tells it again.
class UsbRedirectionClient : public RPCManager {
public:
    UsbRedirectionClient();

    RPCPluginInstance* OnCreateInstance() override;
    void OnDestroyInstance(RCPtr<RPCPluginInstance> instance) override;
    bool OnPluginInit() override;
    bool OnPluginExit() override;
    void OnClientInit() override;
    void OnClientExit() override;

    // What the startup arguments ask for. False after an ERROR line if there are none.
    bool IsLoadUsbdNeeded();
    bool IsUsbVChannelEnabled();

    // Start and stop the daemon. They must not overlap each other.

    // True if the daemon's thread runs or has been started.
    bool PowerOnUsbdService();

    // Stops the daemon and waits for the end of its thread without limit, with a WARN line when it takes longer than
    // the daemon's own message time-out and a second. Clears the report, the startup arguments and the identity in any
    // case. True if the daemon had reported success.
    bool PowerOffUsbdService();

    // The body of the daemon's thread: returns once the daemon has stopped. False if there are no startup arguments.
    bool InitUsbdService();

    // The daemon's report, on a thread of the daemon. Holds gUsbdStateLock across the call of the embedding client.
    void UsbdInitDoneNotifyCb(UsbdInitResult result);

    // The current instance or null. Valid as long as the caller holds gInstanceLock.
    UsbRedirectionClientPlugin* GetPlugin() const { return currentPlugin.load(std::memory_order_acquire); }

    struct UsbdInitReport {
        bool done;
        bool succeeded;
        std::string identity;  // empty if the daemon has none
    };
    UsbdInitReport GetUsbdInitReport() const REQUIRES(gUsbdStateLock);

private:
    static constexpr size_t kIdentitySize = 256;

    RCPtr<UsbRedirectionClientPlugin> HoldPlugin();
    RCPtr<UsbRedirectionClientPlugin> ExchangePlugin(UsbRedirectionClientPlugin* instance);
    RCPtr<UsbRedirectionClientPlugin> ClearPlugin(const RPCPluginInstance* instance);
    std::string MakeIdentity();
    bool StopUsbdThread(const char* signature);  // logs under that of PowerOffUsbdService

    UsbRedirectionLogger usbRedirectionLogger;
    KxMutex pluginLock{false, ""};  // guards plugin; taken last of all locks and held for an exchange or a copy only
    RCPtr<UsbRedirectionClientPlugin> plugin GUARDED_BY(pluginLock);
    // What plugin points to, for the daemon's callbacks, which gInstanceLock saves from a lock more: stored with
    // release and loaded with acquire, so that whoever finds an instance finds it complete.
    std::atomic<UsbRedirectionClientPlugin*> currentPlugin{nullptr};
    std::unique_ptr<KxThread> usbdThread;  // the service thread, also after it has ended by itself
    bool usbdInitDone GUARDED_BY(gUsbdStateLock) = false;
    bool usbdInitSucceeded GUARDED_BY(gUsbdStateLock) = false;
    // The identity under which the daemon runs, "pid@process", cut to fit.
    std::unique_ptr<std::array<char, kIdentitySize>> negotiatedDesktopPid GUARDED_BY(gUsbdStateLock);
};
