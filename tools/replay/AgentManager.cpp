#include "tools/replay/AgentManager.h"

#include <algorithm>
#include <cstring>
#include <string_view>
#include <utility>

#include "logging/Log.h"
#include "rpc/QSCServiceCommand.h"
#include "rpc/RPCVariant.h"
#include "standin/qscservice/Server.h"

// A message that an instance reads or writes.
class AgentCommand : public QSCServiceCommand {
public:
    AgentCommand(RPCPluginInstance& instance, void* hContext)
        : QSCServiceCommand(instance.GetChannelContextInterface(), instance.GetVariantInterface(), hContext),
          instance(instance) {}

    // Whether the parameter is there and of that kind; read refers to it until read goes.
    bool Read(int index, QSC_RPC_VariantKind kind, RPCVariant* read) {
        return GetParamCount() > index && GetParam(index, read) && read->vt == kind;
    }

    RPCPluginInstance& instance;
};

namespace {

constexpr uint64_t kFastHeaderBytes = 64;
constexpr std::string_view kResponsePrefix = "response:";

enum Command : uint32_t { kPost = 0, kFastPost = 1, kAsyncMessage = 2, kHidPost = 3 };

}  // namespace

AgentInstance::AgentInstance(RPCManager* manager, AgentBook* book)
    : RPCPluginInstance(manager, RefCountOn), book(*book), account(&book->Of(0)) {}

// On the service's delivery thread for this session, so the current channel is its own.
void AgentInstance::OnReady() {
    if (const auto channel = qscservice::FindServerChannel(nullptr)) {
        client.store(channel->Account().peerEnd, std::memory_order_relaxed);
        account = &book.Of(client);
    }
    std::string text(static_cast<size_t>(std::max(GetUniqueSerializedIdSize(), 1)), '\0');
    if (GetUniqueSerializedId(static_cast<int>(text.size()), text.data())) {
        text.pop_back();
        const qscservice::Lock guard(lock);
        id = text;
    }
    LOG(Info, "The channel of client %016llX is ready\n", static_cast<unsigned long long>(client.load()));
    if (!account->Greet()) return;
    for (const char* type : {"Filter", "UnFilter"}) {
        account->CountReply(PostText(type, {static_cast<uint32_t>(std::strlen(type)), type}));
    }
}

void AgentInstance::OnNotReady() {
    LOG(Info, "The channel of client %016llX is down\n", static_cast<unsigned long long>(client.load()));
}

void AgentInstance::OnInvoke(void* context) {
    AgentCommand message(*this, context);
    const uint32_t command = message.GetCommand();
    LOG(Debug, "Message with command %u\n", command);
    bool understood = false;
    switch (command) {
        case kPost:
            understood = CountPost(message);
            break;
        case kFastPost:
            understood = ReturnFastPost(message);
            break;
        case kAsyncMessage:
            understood = Answer(message);
            break;
        case kHidPost:
            understood = ReturnHidPost(message);
            break;
    }
    if (!understood) account->CountMalformed();
}

bool AgentInstance::Post(uint32_t command, const std::function<bool(AgentCommand&)>& fill) {
    void* hContext = nullptr;
    if (!CreateMessage(&hContext, RPCChannelType::Data)) return false;
    AgentCommand post(*this, hContext);
    if (post.SetCommand(command) && fill(post) && InvokeMessage(hContext, FALSE, RPCChannelType::Data)) {
        replies.fetch_add(1, std::memory_order_relaxed);
        return true;
    }
    DestroyMessage(hContext);
    return false;
}

bool AgentInstance::PostText(const char* type, const QSC_RPC_BLOB& content) {
    return Post(kPost, [&](AgentCommand& post) { return post.AddParam(type) && post.AddParam(&content); });
}

bool AgentInstance::CountPost(AgentCommand& message) {
    RPCVariant type(this), content(this);
    if (!message.Read(0, QSC_VT_LPSTR, &type) || !message.Read(1, QSC_VT_BLOB, &content)) return false;
    Note(content.blob.size);
    account->CountMessage(&KindCounts::post, content.blob.size);
    return true;
}

bool AgentInstance::ReturnFastPost(AgentCommand& message) {
    RPCVariant content(this);
    if (!message.Read(0, QSC_VT_BLOB, &content)) return false;
    const uint64 size = content.blob.size;
    const uint64 trailer = size > kFastHeaderBytes ? size - kFastHeaderBytes : 0;
    const uint32_t number = account->NextRunningNumber();
    const bool accepted = Post(kFastPost, [&](AgentCommand& post) {
        return post.AddParam(number) && post.AddParam(uint64{kFastHeaderBytes}) && post.AddParam(trailer) &&
               post.AddParam(&content.blob);
    });
    Note(content.blob.size);
    account->CountMessage(&KindCounts::fast, content.blob.size, accepted);
    return true;
}

bool AgentInstance::ReturnHidPost(AgentCommand& message) {
    RPCVariant content(this);
    if (!message.Read(0, QSC_VT_BLOB, &content)) return false;
    const bool accepted = PostText("HIDOptOperation", content.blob);
    Note(content.blob.size);
    account->CountMessage(&KindCounts::hid, content.blob.size, accepted);
    return true;
}

// The service takes return values for a request only.
bool AgentInstance::Answer(AgentCommand& message) {
    RPCVariant type(this), messageId(this), content(this);
    if (!message.Read(0, QSC_VT_LPSTR, &type) || !message.Read(1, QSC_VT_LPSTR, &messageId) ||
        !message.Read(2, QSC_VT_BLOB, &content)) {
        return false;
    }
    response.assign(kResponsePrefix.begin(), kResponsePrefix.end());
    const auto* const begin = static_cast<const uint8_t*>(content.blob.data);
    response.insert(response.end(), begin, begin + content.blob.size);
    const QSC_RPC_BLOB blob = {static_cast<uint32_t>(response.size()), response.data()};
    if (!message.AppendReturnVal(messageId.str) || !message.AppendReturnVal(&blob)) return false;
    Note(content.blob.size);
    account->CountMessage(&KindCounts::async, content.blob.size);
    return true;
}

void AgentInstance::Note(size_t size) {
    received.fetch_add(1, std::memory_order_relaxed);
    bytes.fetch_add(size, std::memory_order_relaxed);
    lastMessage.store((Clock::now() - begin).count(), std::memory_order_relaxed);
}

SessionView AgentInstance::View() {
    using Seconds = std::chrono::duration<double>;
    SessionView view;
    char text[17];
    std::snprintf(text, sizeof text, "%016llX", static_cast<unsigned long long>(client.load()));
    view.client = text;
    view.ready = IsReady();
    {
        const qscservice::Lock guard(lock);
        view.id = id;
    }
    view.received = received.load(std::memory_order_relaxed);
    view.bytes = bytes.load(std::memory_order_relaxed);
    view.replies = replies.load(std::memory_order_relaxed);
    view.pending = UpdatePendingCount(0, nullptr, 0);
    view.oldestMS = OldestPendingMS();
    const Clock::duration age = Clock::now() - begin;
    view.seconds = Seconds(age).count();
    view.idleSeconds = Seconds(age - Clock::duration(lastMessage.load(std::memory_order_relaxed))).count();
    return view;
}

bool AgentManager::ConfigureTcpSideChannel() {
    const QSC_INTERFACE_ID tableId = QSC_MakeInterfaceId(qscservice::kServerInterfaceVersion);
    QSCService_ServerInterface table{};
    if (!QueryInterface(&tableId, &table)) return false;
    SetServerInterface(table);
    m_tcpSideChannel = sideChannel == SideChannel::Tcp;
    onBound();
    return true;
}

bool AgentManager::ConfigureVirtualSideChannel() {
    m_virtualSideChannel = sideChannel == SideChannel::Virtual;
    return true;
}

bool AgentManager::OnServerConnected(QSCService_SessionType type, QscServerID id) {
    return RPCManager::OnServerConnected(type, id) && StartServer(id);
}

RPCPluginInstance* AgentManager::OnCreateServerInstance(QscServerID id) {
    auto* const instance = new AgentInstance(this, book);
    RCPtr<AgentInstance> replaced(instance);  // let go after the lock
    KxMutexGuard guard(lock);
    std::swap(instances[id], replaced);
    return instance;
}

// The hook's signature is the framework's. NOLINTNEXTLINE(performance-unnecessary-value-param)
void AgentManager::OnDestroyServerInstance(QscServerID id, RCPtr<RPCPluginInstance>) {
    RCPtr<AgentInstance> gone;
    KxMutexGuard guard(lock);
    const auto found = instances.find(id);
    if (found == instances.end()) return;
    gone = std::move(found->second);
    instances.erase(found);
}

void AgentManager::OnServerExit() {
    std::map<QscServerID, RCPtr<AgentInstance>> gone;
    KxMutexGuard guard(lock);
    gone.swap(instances);
}

std::vector<RCPtr<AgentInstance>> AgentManager::Instances() {
    std::vector<RCPtr<AgentInstance>> all;
    KxMutexGuard guard(lock);
    for (const auto& [id, instance] : instances) all.push_back(instance);
    return all;
}
