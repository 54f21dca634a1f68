// The exports of the service, what they have started, and the words of the server table.
#include "standin/qscservice/Server.h"

#include <charconv>
#include <cstring>
#include <thread>
#include <utility>
#include <vector>

#include "standin/qscservice/CallScript.h"
#include "standin/qscservice/ChannelObject.h"
#include "standin/qscservice/MultiServer.h"
#include "standin/qscservice/ServiceTables.h"

namespace qscservice {

namespace {

using ChannelPtr = std::shared_ptr<ServiceChannel>;
using MultiServerPtr = std::shared_ptr<MultiServer>;

constexpr DWORD kNoSession = static_cast<DWORD>(-1);
constexpr std::string_view kFdPrefix = "fd:";

// What runs, and what the next start uses.
struct Servers {
    Mutex mutex;  // guards the fields; held across no call of a channel or a server
    ServerOptions options GUARDED_BY(mutex);
    std::map<DWORD, ChannelPtr> single GUARDED_BY(mutex);
    std::map<void*, MultiServerPtr> multi GUARDED_BY(mutex);
    std::vector<std::pair<const void*, std::string>> addresses GUARDED_BY(mutex);  // in order of their starts
};

Servers& TheServers() {
    static Servers* servers = new Servers;
    return *servers;
}

void AddAddress(Servers& servers, const void* key, const std::string& address) REQUIRES(servers.mutex) {
    servers.addresses.emplace_back(key, address);
}

void RemoveAddress(Servers& servers, const void* key) REQUIRES(servers.mutex) {
    std::erase_if(servers.addresses, [key](const auto& entry) { return entry.first == key; });
}

std::vector<MultiServerPtr> MultiServers() {
    Servers& servers = TheServers();
    std::vector<MultiServerPtr> all;
    Lock lock(servers.mutex);
    for (const auto& [handle, server] : servers.multi) all.push_back(server);
    return all;
}

MultiServerPtr FindMultiServer(void* handle) {
    Servers& servers = TheServers();
    Lock lock(servers.mutex);
    const auto found = servers.multi.find(handle);
    return found != servers.multi.end() ? found->second : nullptr;
}

// The server of a connection.
MultiServerPtr ServerOf(QscServerID id) {
    for (const MultiServerPtr& server : MultiServers()) {
        if (server->FindChannel(id)) return server;
    }
    return nullptr;
}

bool Begin(ServiceChannel& channel, const std::string& address, std::string* error) {
    if (!address.starts_with(kFdPrefix)) return channel.Listen(address, error);
    int fd = -1;
    std::from_chars(address.data() + kFdPrefix.size(), address.data() + address.size(), fd);
    return channel.Attach(fd, error);
}

bool StartSingle(DWORD session, const char* name, QSC_SERVICE_QUERY_INTERFACE* query, void** hChannel) {
    if (!name || !*name || !query || !hChannel) return false;
    Servers& servers = TheServers();
    ServerOptions options;
    {
        Lock lock(servers.mutex);
        if (servers.single.contains(session)) return false;
        options = servers.options;
    }
    options.channel.role = Role::Server;
    const ChannelPtr channel = ServiceChannel::Create(options.channel);
    channel->SetPollThread(std::this_thread::get_id());
    std::string error;
    if (!Begin(*channel, options.address, &error)) {
        ReportError(error);
        return false;
    }
    {
        Lock lock(servers.mutex);
        if (servers.single.try_emplace(session, channel).second) {
            AddAddress(servers, channel.get(), channel->Address());
            channel->MakeDefault();
            *query = Query();
            *hChannel = channel->Handle();
            return true;
        }
    }
    channel->Close();
    return false;
}

bool StopSingle(DWORD session) {
    if (CallbackScope::IsActive()) return false;
    Servers& servers = TheServers();
    ChannelPtr channel;
    {
        Lock lock(servers.mutex);
        auto node = servers.single.extract(session);
        if (!node) return false;
        channel = std::move(node.mapped());
        RemoveAddress(servers, channel.get());
    }
    channel->Close();
    return true;
}

bool StartMulti(const char* name, QSC_SERVICE_QUERY_INTERFACE* query, void** hMultiServer) {
    if (!name || !*name || !query || !hMultiServer) return false;
    Servers& servers = TheServers();
    ServerOptions options;
    {
        Lock lock(servers.mutex);
        options = servers.options;
    }
    const auto server = std::make_shared<MultiServer>(options);
    std::string error;
    if (!server->Listen(&error)) {
        ReportError(error);
        return false;
    }
    *query = Query();
    *hMultiServer = Registry::The().NewHandle();
    Lock lock(servers.mutex);
    servers.multi[*hMultiServer] = server;
    AddAddress(servers, *hMultiServer, server->Address());
    return true;
}

bool StopMulti(void* hMultiServer) {
    if (CallbackScope::IsActive()) return false;
    Servers& servers = TheServers();
    MultiServerPtr server;
    {
        Lock lock(servers.mutex);
        auto node = servers.multi.extract(hMultiServer);
        if (!node) return false;
        server = std::move(node.mapped());
        RemoveAddress(servers, hMultiServer);
    }
    server->Close();
    return true;
}

// The server table.

Bool RegisterServerNotifySink(void* context, const QSCService_ServerNotifySink* sink, void* hMultiServer,
                              uint32_t* cookie) {
    if (Refused(Op::RegisterServerNotifySink)) return FALSE;
    const MultiServerPtr server = FindMultiServer(hMultiServer);
    return server && sink && cookie && server->SetSink(context, *sink, cookie);
}

Bool UnregisterServerNotifySink(uint32_t cookie) {
    if (Refused(Op::UnregisterServerNotifySink)) return FALSE;
    bool cleared = false;
    for (const MultiServerPtr& server : MultiServers()) cleared = cleared || server->ClearSink(cookie);
    return cleared;
}

Bool StartServer(void* context, QscServerID id) {
    if (Refused(Op::StartServer)) return FALSE;
    const MultiServerPtr server = ServerOf(id);
    return server && server->StartServer(context, id);
}

Bool StopServer(QscServerID id) {
    if (Refused(Op::StopServer)) return FALSE;
    const MultiServerPtr server = ServerOf(id);
    return server && server->StopServer(id);
}

// All of the multi-server that has this connection.
Bool StopAllServers(QscServerID id) {
    if (Refused(Op::StopAllServers)) return FALSE;
    const MultiServerPtr server = ServerOf(id);
    if (server) server->StopAllServers();
    return server != nullptr;
}

void* GetServerChannel(QscServerID id) {
    if (Refused(Op::GetServerChannel)) return nullptr;
    const ChannelPtr channel = FindServerChannel(id);
    return channel ? channel->Handle() : nullptr;
}

int GetUniqueSerializedIdSize(QscServerID id) {
    if (Refused(Op::GetUniqueSerializedIdSize)) return 0;
    const ChannelPtr channel = FindServerChannel(id);
    return channel ? static_cast<int>(channel->UniqueId().size()) + 1 : 0;
}

Bool GetUniqueSerializedId(QscServerID id, int size, char* buffer) {
    if (Refused(Op::GetUniqueSerializedId)) return FALSE;
    const ChannelPtr channel = FindServerChannel(id);
    if (!channel || !buffer || size <= static_cast<int>(channel->UniqueId().size())) return FALSE;
    std::memcpy(buffer, channel->UniqueId().c_str(), channel->UniqueId().size() + 1);
    return TRUE;
}

Bool IsUniqueSerializedIdOwner(QscServerID id, const char* serializedId) {
    if (Refused(Op::IsUniqueSerializedIdOwner)) return FALSE;
    const ChannelPtr channel = FindServerChannel(id);
    return channel && serializedId && channel->UniqueId() == serializedId;
}

Bool OpenMsgChannel(void* context, QscServerID id, const char* name, const QSCService_MsgChannelNotifySink* sink) {
    if (Refused(Op::OpenMsgChannel)) return FALSE;
    const ChannelPtr channel = FindServerChannel(id);
    return channel && sink && channel->OpenMsgChannel(context, name, *sink);
}

Bool GetMsgChannelInfo(QscServerID id, QscMsgChannelID msgChannel, QSCService_MsgChannelInfo* info) {
    if (Refused(Op::GetMsgChannelInfo)) return FALSE;
    const ChannelPtr channel = FindServerChannel(id);
    return channel && channel->GetMsgChannelInfo(msgChannel, info);
}

Bool CloseMsgChannel(QscMsgChannelID msgChannel) {
    if (Refused(Op::CloseMsgChannel)) return FALSE;
    return ServiceChannel::CloseMsgChannel(msgChannel);
}

Bool SendMsgChannel(QscMsgChannelID msgChannel, void* a, void* b, void* c) {
    if (Refused(Op::SendMsgChannel)) return FALSE;
    return ServiceChannel::SendMsgChannel(msgChannel, a, b, c);
}

}  // namespace

constexpr QSCService_ServerInterface kServerTable = {
    .unused0 = nullptr,
    .RegisterServerNotifySink = RegisterServerNotifySink,
    .UnregisterServerNotifySink = UnregisterServerNotifySink,
    .StartServer = StartServer,
    .StopServer = StopServer,
    .StopAllServers = StopAllServers,
    .GetServerChannel = GetServerChannel,
    .GetUniqueSerializedIdSize = GetUniqueSerializedIdSize,
    .GetUniqueSerializedId = GetUniqueSerializedId,
    .IsUniqueSerializedIdOwner = IsUniqueSerializedIdOwner,
    .OpenMsgChannel = OpenMsgChannel,
    .GetMsgChannelInfo = GetMsgChannelInfo,
    .CloseMsgChannel = CloseMsgChannel,
    .unused13 = nullptr,
    .SendMsgChannel = SendMsgChannel,
    .unused15 = nullptr,
};

void SetServerOptions(const ServerOptions& options) {
    Servers& servers = TheServers();
    Lock lock(servers.mutex);
    servers.options = options;
}

std::string ServerAddress() {
    Servers& servers = TheServers();
    Lock lock(servers.mutex);
    return servers.addresses.empty() ? std::string() : servers.addresses.back().second;
}

std::shared_ptr<ServiceChannel> FindServerChannel(QscServerID id) {
    if (!id) return ServiceChannel::Current();
    for (const MultiServerPtr& server : MultiServers()) {
        if (auto channel = server->FindChannel(id)) return channel;
    }
    return nullptr;
}

std::map<uint32_t, CommandCount> ServerCounts(uint64_t peerEnd) {
    std::map<uint32_t, CommandCount> sum;
    for (const MultiServerPtr& server : MultiServers()) AddCounts(&sum, server->Counts(peerEnd));
    std::vector<ChannelPtr> channels;
    {
        Servers& servers = TheServers();
        Lock lock(servers.mutex);
        for (const auto& [session, channel] : servers.single) channels.push_back(channel);
    }
    for (const ChannelPtr& channel : channels) {
        if (peerEnd == 0 || channel->Account().peerEnd == peerEnd) AddCounts(&sum, channel->Counts());
    }
    return sum;
}

}  // namespace qscservice

// The exports. A server without a session, of low privilege or not, stands beside those of sessions.

extern "C" {

Bool QSCService_ServerInit(const char* name, QSC_SERVICE_QUERY_INTERFACE* query, void** hChannel) {
    return qscservice::StartSingle(qscservice::kNoSession, name, query, hChannel);
}

Bool QSCService_ServerInitLP(const char* name, uintptr_t, QSC_SERVICE_QUERY_INTERFACE* query, void** hChannel) {
    return qscservice::StartSingle(qscservice::kNoSession, name, query, hChannel);
}

Bool QSCService_ServerExit() {
    return qscservice::StopSingle(qscservice::kNoSession);
}

Bool QSCService_ServerInit2(DWORD sessionId, const char* name, QSC_SERVICE_QUERY_INTERFACE* query, void** hChannel) {
    return qscservice::StartSingle(sessionId, name, query, hChannel);
}

Bool QSCService_ServerExit2(DWORD sessionId) {
    return qscservice::StopSingle(sessionId);
}

Bool QSCService_MultiServerInit(DWORD, const char* name, const char*, QSC_SERVICE_QUERY_INTERFACE* query,
                                void** hMultiServer) {
    return qscservice::StartMulti(name, query, hMultiServer);
}

Bool QSCService_MultiServerExit(void* hMultiServer, void*) {
    return qscservice::StopMulti(hMultiServer);
}

}  // extern "C"
