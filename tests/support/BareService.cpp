#include "tests/support/BareService.h"

#include <dlfcn.h>
#include <stdlib.h>

#include <condition_variable>
#include <cstring>
#include <filesystem>
#include <mutex>

namespace {

using Op = BareService::Op;

// A sanitizer calls what an unloaded library keeps for the life of the process a leak: under one the library stays.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int kLoadMode = RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE;
#else
constexpr int kLoadMode = RTLD_NOW | RTLD_LOCAL;
#endif

std::string tempFolder;  // of the plug-in, for as long as it is loaded
bool recording = false;
std::vector<Op> recorded;
QSC_RPC_BLOB lastBlob{};

// Kept out of line so that the calls by hand cost what they cost the plug-in.
#define NOTE(op)                \
    if (recording) [[unlikely]] \
    recorded.push_back(Op::op)

char controlObject, dataObject, messageContext, channelHandle;
QSCService_ChannelNotifySink channelSink{};
void* channelContext = nullptr;
QSCRPC_ObjectNotifySink objectSinks[2]{};
void* objectContexts[2]{};

void PollNothing() {}
Bool RegisterSink(const QSCService_ChannelNotifySink* sink, void* context, uint32_t* cookie) {
    channelSink = *sink;
    channelContext = context;
    *cookie = 7;
    return TRUE;
}
Bool UnregisterSink(uint32_t) {
    return TRUE;
}
Bool Succeed() {
    return TRUE;
}
QSCService_ConnectionState Connected() {
    return QSC_CONNECTION_CONNECTED;
}
QSCService_SessionType Session() {
    return QSC_SESSION_PCOIP;
}

Bool CreateObject(const char* name, const QSCRPC_ObjectNotifySink* sink, void* context, uint32_t, void** hObject) {
    const int index = std::strcmp(name, "UsbRedirDataObj") == 0 ? 1 : 0;
    objectSinks[index] = *sink;
    objectContexts[index] = context;
    *hObject = index ? &dataObject : &controlObject;
    return TRUE;
}
Bool DestroyObject(void*) {
    return TRUE;
}
QSCRPC_ObjectState ObjectState(void*) {
    return QSC_OBJECT_CONNECTED;
}
Bool NewContext(void*, void** hContext) {
    NOTE(CreateContext);
    *hContext = &messageContext;
    return TRUE;
}
Bool DropContext(void*) {
    NOTE(DestroyContext);
    return TRUE;
}
Bool Invoke(void*, void*, const QSCRPC_ContextNotifySink*, void*) {
    NOTE(Invoke);
    return TRUE;
}

uint32_t GetId(void*) {
    NOTE(GetId);
    return 1;
}
uint32_t GetCommand(void*) {
    return 1;
}
Bool SetCommand(void*, uint32_t) {
    NOTE(SetCommand);
    return TRUE;
}
int CountNothing(void*) {
    return 0;
}
Bool AppendParam(void*, const QSC_RPC_VARIANT* value) {
    NOTE(AppendParam);
    if (recording) lastBlob = value->blob;
    return TRUE;
}
Bool SetOption(void*, uint32_t, const QSC_RPC_VARIANT*) {
    NOTE(SetOption);
    return TRUE;
}

Bool VariantInit(QSC_RPC_VARIANT* variant) {
    NOTE(VariantInit);
    variant->vt = 0;
    return TRUE;
}
Bool VariantClear(QSC_RPC_VARIANT*) {
    NOTE(VariantClear);
    return TRUE;
}
Bool VariantFromUInt32(QSC_RPC_VARIANT* variant, uint32_t value) {
    NOTE(VariantFromUInt32);
    variant->vt = QSC_VT_UI4;
    variant->uint32Val = value;
    return TRUE;
}
Bool VariantFromBlob(QSC_RPC_VARIANT* variant, const QSC_RPC_BLOB* blob) {
    NOTE(VariantFromBlob);
    variant->vt = QSC_VT_BLOB;
    variant->blob = *blob;
    return TRUE;
}

struct Tables {
    QSCService_ChannelInterface channel{};
    QSCRPC_ChannelObjectInterface object{};
    QSCRPC_ChannelContextInterface context{};
    QSCRPC_VariantInterface variant{};
};

Tables MakeTables() {
    Tables t;
    t.channel.v1 = {PollNothing, RegisterSink, UnregisterSink, Succeed, Succeed, Connected};
    t.channel.GetSessionType = Session;
    t.object.CreateChannelObject = CreateObject;
    t.object.DestroyChannelObject = DestroyObject;
    t.object.GetObjectState = ObjectState;
    t.object.CreateContext = NewContext;
    t.object.DestroyContext = DropContext;
    t.object.Invoke = Invoke;
    t.context.GetId = GetId;
    t.context.GetCommand = GetCommand;
    t.context.SetCommand = SetCommand;
    t.context.GetParamCount = CountNothing;
    t.context.AppendParam = AppendParam;
    t.context.GetReturnValCount = CountNothing;
    t.context.SetOption = SetOption;
    t.variant.VariantInit = VariantInit;
    t.variant.VariantClear = VariantClear;
    t.variant.VariantFromUInt32 = VariantFromUInt32;
    t.variant.VariantFromBlob = VariantFromBlob;
    return t;
}

const Tables tables = MakeTables();

Bool Query(const QSC_INTERFACE_ID* id, void* table) {
    switch (id->bytes[4]) {
        case 0x0B:
            std::memcpy(table, &tables.channel, sizeof tables.channel);
            return TRUE;
        case 0x12:
            std::memcpy(table, &tables.object, sizeof tables.object);
            return TRUE;
        case 0x08:
            std::memcpy(table, &tables.context, sizeof tables.context);
            return TRUE;
        case 0x00:
            std::memcpy(table, &tables.variant, sizeof tables.variant);
            return TRUE;
        case 0x19:
            return TRUE;
        default:
            return FALSE;
    }
}

struct Daemon {
    std::mutex lock;  // guards started and stopping
    std::condition_variable changed;
    bool started = false;
    bool stopping = false;
    Usbd_PostMsgFastCb postFast = nullptr;
};
Daemon daemonState;

void* plugin = nullptr;
void* instance = nullptr;

template <typename F>
F Find(const char* name) {
    return reinterpret_cast<F>(dlsym(plugin, name));
}

}  // namespace

extern "C" {

int StartUsbd(int, char**) {
    std::unique_lock guard(daemonState.lock);
    daemonState.started = true;
    daemonState.changed.notify_all();
    daemonState.changed.wait(guard, [] { return daemonState.stopping; });
    daemonState.started = daemonState.stopping = false;
    return 0;
}
void StopUsbd(int) {
    std::lock_guard guard(daemonState.lock);
    daemonState.stopping = true;
    daemonState.changed.notify_all();
}
void SetUsbdInitDoneNotifCb(Usbd_InitDoneCb) {}
void Usbd_SetPostMsgCb(Usbd_PostMsgCb) {}
void Usbd_SetPostMsgFastCb(Usbd_PostMsgFastCb callback) {
    daemonState.postFast = callback;
}
void Usbd_SetPostHIDOptMsgFastCb(Usbd_PostHIDOptMsgFastCb) {}
void Usbd_SetSendAsyncMsgCb(Usbd_SendAsyncMsgCb) {}
int Usbd_GetMmfwMsgWaitTimeout() {
    return 1000;
}
void Usbd_NotifyUsbVirtualChannelAvailable() {}
void Usbd_PostMsgToUsbdPoll(const void*, uint32_t, uint32_t, uint32_t) {}
void Usbd_PostHIDOptOperationMsg(const char*, size_t) {}
void Usbd_SetUsbDeviceFilterEnabledStatus(Bool) {}
void Usbd_SendAsyncMsgRespCb(Usbd_AsyncFinalRespCb, void*, int, const void*, uint32_t) {}

}  // extern "C"

std::string BareService::Start(const std::string& pluginPath) {
    char folder[] = "/tmp/bare-service-XXXXXX";
    tempFolder = mkdtemp(folder);
    setenv("TMPDIR", tempFolder.c_str(), 1);
    plugin = dlopen(pluginPath.c_str(), kLoadMode);
    if (!plugin) return dlerror();
    Find<Bool (*)(const char*)>("QSCService_PluginSetStartupArgs")(
        "VChan.UsbOverVChan.enabled,TRUE,VChan.UsbOverVChan.desktopPID,desktop,"
        "VChan.UsbOverVChan.isLoadUsbdNeeded,TRUE");
    Find<Bool (*)(QSC_SERVICE_QUERY_INTERFACE)>("QSCService_PluginInit")({1, Query});
    {
        std::unique_lock guard(daemonState.lock);
        if (!daemonState.changed.wait_for(guard, std::chrono::seconds(10), [] { return daemonState.started; })) {
            return "the daemon was not started";
        }
    }
    if (!Find<Bool (*)(void*, void**)>("QSCService_PluginCreateInstance")(&channelHandle, &instance)) {
        return "no instance was created";
    }
    channelSink.OnChannelStateChanged(channelContext, QSC_CHANNEL_CONNECTED, QSC_CHANNEL_CONNECTED, nullptr);
    channelSink.OnPeerChannelObjectCreated(channelContext, "UsbRedirControlObj", nullptr);
    channelSink.OnPeerChannelObjectCreated(channelContext, "UsbRedirDataObj", nullptr);
    for (int i : {0, 1}) {
        if (!objectSinks[i].OnObjectStateChanged) return "an object was not created";
        objectSinks[i].OnObjectStateChanged(objectContexts[i], nullptr);
    }
    const unsigned char probe[1]{};
    return PostFast(sizeof probe, probe) ? "" : "the channel did not get ready";
}

void BareService::Stop() {
    Find<Bool (*)(void*)>("QSCService_PluginDestroyInstance")(instance);
    Find<Bool (*)()>("QSCService_PluginExit")();
    dlclose(plugin);
    std::filesystem::remove_all(tempFolder);
}

bool BareService::PostFast(size_t size, const unsigned char* data) {
    return daemonState.postFast(size, data);
}

bool BareService::PostFastByHand(size_t size, const unsigned char* data) {
    void* context = nullptr;
    if (!tables.object.CreateContext(&dataObject, &context)) return false;
    if (!tables.context.SetCommand(context, 1)) return false;
    QSC_RPC_VARIANT payload;
    tables.variant.VariantInit(&payload);
    const QSC_RPC_BLOB blob{static_cast<uint32_t>(size), data};
    tables.variant.VariantFromBlob(&payload, &blob);
    tables.context.AppendParam(context, &payload);
    QSC_RPC_VARIANT post;
    tables.variant.VariantInit(&post);
    tables.variant.VariantFromUInt32(&post, 1);
    tables.context.SetOption(context, QSC_CONTEXT_OPTION_POST, &post);
    tables.variant.VariantClear(&post);
    tables.context.GetId(context);
    const QSCRPC_ContextNotifySink sink{1, nullptr, nullptr};
    const bool sent = tables.object.Invoke(&dataObject, context, &sink, channelContext) != FALSE;
    tables.variant.VariantClear(&payload);
    return sent;
}

void BareService::Record(bool on) {
    recording = on;
    if (on) recorded.clear();
}

std::vector<BareService::Op> BareService::Recorded() {
    return recorded;
}
const void* BareService::LastBlobData() {
    return lastBlob.data;
}
uint32_t BareService::LastBlobSize() {
    return lastBlob.size;
}
