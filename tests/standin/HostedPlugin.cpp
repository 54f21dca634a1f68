// A plug-in that writes down how it is driven, and registers a sink for its channel as a real one does.
#include "tests/standin/HostedPlugin.h"

#include <cstring>

#include "rpc/QSCServiceTables.h"

namespace {

constexpr uintptr_t kInstance = 0x51;

HostedPluginJournal gJournal;
QSCService_ChannelInterface gChannel;
uint32_t gCookie = 0;

Bool Note(const std::string& entryPoint, const std::string& detail = "") {
    gJournal.lines.push_back(entryPoint);
    gJournal.lines.back().append(detail);
    if (gJournal.failing != entryPoint) return TRUE;
    gJournal.failing.clear();
    return FALSE;
}

constexpr QSCService_ChannelNotifySink kSink = {
    1, [](void*, QSCService_ConnectionState, QSCService_ConnectionState, void*) {},
    [](void*, QSCService_ChannelState, QSCService_ChannelState, void*) {}, [](void*, const char*, void*) {}};

}  // namespace

extern "C" {

HostedPluginJournal* HostedPlugin_Journal() {
    return &gJournal;
}

Bool QSCService_PluginSetStartupArgs(const char* args) {
    return Note("SetStartupArgs", std::string(" ").append(args));
}

Bool QSCService_PluginGetTokenName(char* buffer, int size) {
    static constexpr char kToken[] = "Hosted";
    std::strncpy(buffer, kToken, static_cast<size_t>(size));
    const Bool result = Note("GetTokenName", std::string(" ").append(std::to_string(size)));
    buffer[size - 1] = size < 100 ? '\0' : '!';
    if (size >= 100) std::memset(buffer, '!', static_cast<size_t>(size));
    return result;
}

Bool QSCService_PluginInit(QSC_SERVICE_QUERY_INTERFACE query) {
    const QSC_INTERFACE_ID id = QSC_MakeInterfaceId(0x0B);
    const Bool found = query.QueryInterface(&id, &gChannel);
    return Note("Init", std::string(" table ").append(std::to_string(found)));
}

Bool QSCService_PluginExit() {
    return Note("Exit");
}

Bool QSCService_PluginCreateInstance(void* hChannel, void** instance) {
    gJournal.hChannel = hChannel;
    *instance = reinterpret_cast<void*>(kInstance);
    if (Note("CreateInstance") == FALSE) return FALSE;
    return gChannel.v1.RegisterChannelNotifySink(&kSink, nullptr, &gCookie);
}

Bool QSCService_PluginDestroyInstance(void* instance) {
    const Bool unregistered = gChannel.v1.UnregisterChannelNotifySink(gCookie);
    const bool ours = instance == reinterpret_cast<void*>(kInstance);
    return Note("DestroyInstance",
                std::string(ours ? "" : " of another").append(" sink ").append(std::to_string(unregistered)));
}

}  // extern "C"
