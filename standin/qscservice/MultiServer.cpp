#include "standin/qscservice/MultiServer.h"

#include <charconv>
#include <chrono>
#include <utility>
#include <vector>

#include "standin/qscservice/ChannelObject.h"
#include "standin/qscservice/ServiceTables.h"

namespace qscservice {

namespace {

constexpr size_t kMaxConnections = 2048;
constexpr size_t kMaxAccounts = 4096;
constexpr auto kAcceptPause = std::chrono::milliseconds(100);  // after an error, such as too many open files
constexpr auto kReturnLimit = std::chrono::seconds(5);         // for the end of a returning peer's earlier connection
constexpr std::string_view kFdPrefix = "fd:";

std::atomic<uint32_t> gNextCookie{1};

}  // namespace

void AddCounts(std::map<uint32_t, CommandCount>* sum, const std::map<uint32_t, CommandCount>& counts) {
    for (const auto& [command, count] : counts) {
        CommandCount& total = (*sum)[command];
        total.accepted += count.accepted;
        total.refused += count.refused;
        total.confirmed += count.confirmed;
        total.cut += count.cut;
        total.delivered += count.delivered;
        total.undeliverable += count.undeliverable;
    }
}

MultiServer::MultiServer(const ServerOptions& options) : m_options(options) {}

MultiServer::~MultiServer() = default;

bool MultiServer::Listen(std::string* error) {
    if (m_options.address.starts_with(kFdPrefix)) return true;
    m_listener = Listener::Open(m_options.address, error);
    return m_listener != nullptr;
}

bool MultiServer::SetSink(void* context, const QSCService_ServerNotifySink& sink, uint32_t* cookie) {
    {
        Lock lock(m_mutex);
        if (m_cookie != 0 || m_closing.load(std::memory_order_acquire)) return false;
        m_sink = sink;
        m_sinkContext = context;
        *cookie = m_cookie = gNextCookie.fetch_add(1, std::memory_order_relaxed);
    }
    if (m_acceptor.joinable()) return true;
    if (m_listener) {
        m_acceptor = std::thread([this] { AcceptLoop(); });
        return true;
    }
    const std::string_view number = std::string_view(m_options.address).substr(kFdPrefix.size());
    int fd = -1;
    std::from_chars(number.data(), number.data() + number.size(), fd);
    if (fd >= 0) Serve(Fd(fd));
    return true;
}

bool MultiServer::ClearSink(uint32_t cookie) {
    const int own = CallbackScope::IsActive() ? 1 : 0;
    Lock lock(m_mutex);
    if (cookie == 0 || cookie != m_cookie) return false;
    m_cookie = 0;
    m_sink = {};
    while (own == 0 && m_sinkCalls > 0) m_changed.wait(m_mutex);
    return true;
}

Bool MultiServer::CallSink(const std::function<Bool(const QSCService_ServerNotifySink&, void*)>& call) {
    QSCService_ServerNotifySink sink;
    void* context = nullptr;
    {
        Lock lock(m_mutex);
        if (m_cookie == 0) return FALSE;
        sink = m_sink;
        context = m_sinkContext;
        ++m_sinkCalls;
    }
    const Bool result = call(sink, context);
    {
        Lock lock(m_mutex);
        --m_sinkCalls;
    }
    m_changed.notify_all();
    return result;
}

void MultiServer::AcceptLoop() {
    while (!m_closing.load(std::memory_order_acquire)) {
        std::string error;
        Fd socket = m_listener->Accept(&error);
        if (socket.IsOpen()) {
            Serve(std::move(socket));
        } else if (!error.empty()) {
            ReportError(error);
            std::this_thread::sleep_for(kAcceptPause);
        } else if (!m_closing.load(std::memory_order_acquire)) {
            m_listener->Resume();
        }
        Reap();
    }
}

void MultiServer::Serve(Fd socket) {
    QscServerID id = Registry::The().NewHandle();
    ChannelOptions options = m_options.channel;
    options.role = Role::Server;
    options.delivery = Delivery::Threaded;
    const std::shared_ptr<ServiceChannel> channel = ServiceChannel::Create(options, weak_from_this(), id);
    bool full = false;
    {
        Lock lock(m_mutex);
        full = m_connections.size() >= kMaxConnections;
        if (!full) m_connections[id].channel = channel;
    }
    if (full) return ReportError("too many server connections");
    std::string error;
    if (channel->Attach(socket.Release(), &error)) return;
    ReportError(error);
    Lock lock(m_mutex);
    m_connections.erase(id);
}

// Ends the channels of connections that have ended; their threads are through, or about to be.
void MultiServer::Reap() {
    std::vector<std::shared_ptr<ServiceChannel>> ended;
    {
        Lock lock(m_mutex);
        for (auto entry = m_connections.begin(); entry != m_connections.end();) {
            if (entry->second.ended) {
                ended.push_back(std::move(entry->second.channel));
                entry = m_connections.erase(entry);
            } else {
                ++entry;
            }
        }
    }
    for (const auto& channel : ended) channel->Close();
}

void MultiServer::Close() {
    m_closing.store(true, std::memory_order_release);
    if (m_listener) m_listener->Stop();
    if (m_acceptor.joinable()) m_acceptor.join();
    std::vector<std::shared_ptr<ServiceChannel>> channels;
    {
        Lock lock(m_mutex);
        for (const auto& [id, connection] : m_connections) channels.push_back(connection.channel);
    }
    for (const auto& channel : channels) channel->Interrupt();
    for (const auto& channel : channels) channel->Close();
    Lock lock(m_mutex);
    m_connections.clear();
}

bool MultiServer::StartServer(void* context, QscServerID id) {
    std::shared_ptr<ServiceChannel> channel;
    {
        Lock lock(m_mutex);
        const auto found = m_connections.find(id);
        if (found == m_connections.end() || m_cookie == 0 || context != m_sinkContext) return false;
        Connection& connection = found->second;
        if (!connection.reported || connection.started || connection.ended) return false;
        connection.started = true;
        channel = connection.channel;
    }
    channel->RunOnDelivery([this, id] { CreateInstance(id); });
    return true;
}

bool MultiServer::StopServer(QscServerID id) {
    std::shared_ptr<ServiceChannel> channel;
    {
        Lock lock(m_mutex);
        const auto found = m_connections.find(id);
        if (found == m_connections.end() || !found->second.started || found->second.ended) return false;
        found->second.started = false;
        channel = found->second.channel;
    }
    channel->RunOnDelivery([this, id] { DestroyInstance(id); });
    return true;
}

void MultiServer::StopAllServers() {
    std::vector<QscServerID> ids;
    {
        Lock lock(m_mutex);
        for (const auto& [id, connection] : m_connections) ids.push_back(id);
    }
    for (QscServerID id : ids) StopServer(id);
}

std::shared_ptr<ServiceChannel> MultiServer::FindChannel(QscServerID id) {
    Lock lock(m_mutex);
    const auto found = m_connections.find(id);
    return found != m_connections.end() ? found->second.channel : nullptr;
}

std::map<uint32_t, CommandCount> MultiServer::Counts(uint64_t peerEnd) {
    std::vector<std::shared_ptr<ServiceChannel>> channels;
    std::map<uint32_t, CommandCount> sum;
    {
        Lock lock(m_mutex);
        if (peerEnd == 0) sum = m_past;
        for (const auto& [peer, account] : m_accounts) {
            if (peerEnd == 0 || peer == peerEnd) AddCounts(&sum, account.counts);
        }
        for (const auto& [id, connection] : m_connections) {
            const bool meant = peerEnd == 0 || connection.peerEnd == peerEnd;
            if (meant && !connection.ended) channels.push_back(connection.channel);
        }
    }
    for (const auto& channel : channels) AddCounts(&sum, channel->Counts());
    return sum;
}

void MultiServer::OnLinkUp(void* ownerId) {
    QSCService_SessionType type;
    {
        Lock lock(m_mutex);
        const auto found = m_connections.find(ownerId);
        if (found == m_connections.end()) return;
        found->second.reported = true;
        type = found->second.channel->SessionType();
    }
    const Bool wanted = CallSink([&](const QSCService_ServerNotifySink& sink, void* context) {
        return sink.QscOnServerConnected(context, type, ownerId);
    });
    if (wanted) return;
    if (const std::shared_ptr<ServiceChannel> channel = FindChannel(ownerId)) channel->Interrupt();
}

void MultiServer::OnLinkDown(void* ownerId) {
    bool reported = false;
    {
        Lock lock(m_mutex);
        const auto found = m_connections.find(ownerId);
        if (found == m_connections.end()) return;
        reported = found->second.reported;
    }
    if (reported) {
        CallSink([&](const QSCService_ServerNotifySink& sink, void* context) {
            return sink.QscOnServerDisconnected(context, ownerId);
        });
    }
    DestroyInstance(ownerId);
    KeepAccount(ownerId, FindChannel(ownerId));
    if (m_listener) m_listener->Stop();  // for the acceptor to reap it
}

void MultiServer::CreateInstance(QscServerID id) {
    {
        Lock lock(m_mutex);
        const auto found = m_connections.find(id);
        if (found == m_connections.end()) return;
        const Connection& connection = found->second;
        if (!connection.started || connection.hasInstance || connection.ended) return;
    }
    void* instance = nullptr;
    const Bool created = CallSink([&](const QSCService_ServerNotifySink& sink, void* context) {
        return sink.QscOnServerInstanceCreated(context, id, &instance);
    });
    Lock lock(m_mutex);
    const auto found = m_connections.find(id);
    if (found == m_connections.end()) return;
    found->second.hasInstance = created != FALSE;
    if (!created) found->second.started = false;
    found->second.instance = instance;
}

void MultiServer::DestroyInstance(QscServerID id) {
    void* instance = nullptr;
    {
        Lock lock(m_mutex);
        const auto found = m_connections.find(id);
        if (found == m_connections.end() || !found->second.hasInstance) return;
        found->second.hasInstance = false;
        instance = std::exchange(found->second.instance, nullptr);
    }
    CallSink([&](const QSCService_ServerNotifySink& sink, void* context) {
        return sink.QscOnServerInstanceDestroyed(context, instance, id);
    });
}

// A peer's connection that has not ended yet is in its place now, and is taken down first.
std::optional<ChannelAccount> MultiServer::TakeAccount(void* ownerId, uint64_t peerEnd) {
    const auto limit = std::chrono::steady_clock::now() + kReturnLimit;
    Lock lock(m_mutex);
    const auto own = m_connections.find(ownerId);
    if (own == m_connections.end()) return std::nullopt;
    own->second.peerEnd = peerEnd;
    for (;;) {
        if (auto node = m_accounts.extract(peerEnd)) return std::move(node.mapped());
        std::shared_ptr<ServiceChannel> earlier;
        for (const auto& [id, connection] : m_connections) {
            if (id == ownerId) break;  // ids rise
            if (connection.peerEnd == peerEnd && !connection.ended) earlier = connection.channel;
        }
        if (!earlier) return std::nullopt;
        earlier->Interrupt();
        if (m_changed.wait_until(m_mutex, limit) == std::cv_status::timeout) return std::nullopt;
    }
}

void MultiServer::KeepAccount(QscServerID id, const std::shared_ptr<ServiceChannel>& channel) {
    ChannelAccount account = channel ? channel->Account() : ChannelAccount{};
    {
        Lock lock(m_mutex);
        const auto found = m_connections.find(id);
        if (found == m_connections.end()) return;
        found->second.ended = true;
        if (account.peerEnd == 0) {
            AddCounts(&m_past, account.counts);
        } else {
            m_accounts.insert_or_assign(account.peerEnd, std::move(account));
        }
        if (m_accounts.size() > kMaxAccounts) {
            AddCounts(&m_past, m_accounts.begin()->second.counts);
            m_accounts.erase(m_accounts.begin());
        }
    }
    m_changed.notify_all();
}

}  // namespace qscservice
