// The process-wide objects of the plug-in. All are made when the library is loaded and destroyed, in reverse order,
// when it is unloaded. Lock order: gInstanceLock, then gUsbdStateLock, then the locks of single objects.
#pragma once

#include <atomic>
#include <memory>

#include "plugin/StartupArgs.h"
#include "plugin/UsbRedirectionPlugin.h"
#include "runtime/KxMutex.h"
#include "runtime/ThreadAnnotations.h"

class UsbRedirectionClient;

// Guards the daemon's init flags and identity, and the deletion of gUsbStartupArgs.
extern KxMutex gUsbdStateLock;

// Keeps the current instance alive, and the daemon's messages one at a time, while a callback of the daemon forwards.
extern KxMutex gInstanceLock ACQUIRED_BEFORE(gUsbdStateLock);

// The one manager of this plug-in, not counted.
extern UsbRedirectionClient gUsbRedirectionClient;

// Made by the first QSCService_PluginSetStartupArgs and deleted, under gUsbdStateLock, when the daemon is powered off.
// Read without a lock: the host sets the arguments before the init, and the power-off comes after the end of the
// daemon's thread.
extern std::unique_ptr<UsbStartupArgs> gUsbStartupArgs;

// The embedding client's callbacks, null when it has none. Set and read by different threads with nothing else between
// them: stored with release and loaded with acquire, so that whoever finds one sees what was set up for it.
extern std::atomic<RMCControlSetUsbdInitDone> gSetUsbdInitDone;
extern std::atomic<RMCControlSetUsbdDevicesFilterStatus> gSetUsbdDevicesFilterStatus;
