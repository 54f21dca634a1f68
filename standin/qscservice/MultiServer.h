// A multi-server: accepts connections, makes a channel for each, and reports them to the sink that has registered.
#pragma once

#include <atomic>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "rpc/QSCServiceTables.h"
#include "standin/qscservice/LockGuard.h"
#include "standin/qscservice/Server.h"
#include "standin/qscservice/Transport.h"

namespace qscservice {

void AddCounts(std::map<uint32_t, CommandCount>* sum, const std::map<uint32_t, CommandCount>& counts);

class MultiServer : public ChannelOwner, public std::enable_shared_from_this<MultiServer> {
public:
    explicit MultiServer(const ServerOptions& options);
    ~MultiServer() override;  // after Close

    // Listens, so that Address is known. Connections are accepted once there is a sink.
    bool Listen(std::string* error);
    std::string Address() const { return m_listener ? m_listener->Address() : std::string(); }

    // Takes all connections down, each with the callbacks of its channel, and ends all threads. Not from a callback.
    void Close();

    // One sink at a time, told apart by its cookie, which is never 0. After ClearSink has returned the sink hears
    // nothing any more; from a callback it doesn't wait for others that are under way.
    bool SetSink(void* context, const QSCService_ServerNotifySink& sink, uint32_t* cookie);
    bool ClearSink(uint32_t cookie);

    // False for an unknown id, another context than the sink's, and a server that is started already, or isn't.
    bool StartServer(void* context, QscServerID id);
    bool StopServer(QscServerID id);
    void StopAllServers();

    std::shared_ptr<ServiceChannel> FindChannel(QscServerID id);
    // With one peer, or with all for 0.
    std::map<uint32_t, CommandCount> Counts(uint64_t peerEnd);

    void OnLinkUp(void* ownerId) override;
    void OnLinkDown(void* ownerId) override;
    std::optional<ChannelAccount> TakeAccount(void* ownerId, uint64_t peerEnd) override;

private:
    struct Connection {
        std::shared_ptr<ServiceChannel> channel;
        uint64_t peerEnd = 0;
        bool reported = false;  // to the sink
        bool started = false;   // an instance is wanted
        bool hasInstance = false;
        void* instance = nullptr;
        bool ended = false;
    };

    void AcceptLoop();
    void Serve(Fd socket);
    void Reap();
    void CreateInstance(QscServerID id);
    void DestroyInstance(QscServerID id);
    void KeepAccount(QscServerID id, const std::shared_ptr<ServiceChannel>& channel);
    // Calls the sink, with no lock held. FALSE without one.
    Bool CallSink(const std::function<Bool(const QSCService_ServerNotifySink& sink, void* context)>& call);

    const ServerOptions m_options;
    std::shared_ptr<Listener> m_listener;
    std::thread m_acceptor;
    std::atomic<bool> m_closing{false};  // release/acquire: set before the acceptor is woken

    Mutex m_mutex;                          // guards the fields below; held across no callback
    std::condition_variable_any m_changed;  // the end of a call of the sink, or of a connection
    QSCService_ServerNotifySink m_sink GUARDED_BY(m_mutex) = {};
    void* m_sinkContext GUARDED_BY(m_mutex) = nullptr;
    uint32_t m_cookie GUARDED_BY(m_mutex) = 0;  // 0: no sink
    int m_sinkCalls GUARDED_BY(m_mutex) = 0;    // under way
    std::map<QscServerID, Connection> m_connections GUARDED_BY(m_mutex);
    std::map<uint64_t, ChannelAccount> m_accounts GUARDED_BY(m_mutex);  // of peers that may return, by their end
    std::map<uint32_t, CommandCount> m_past GUARDED_BY(m_mutex);        // of accounts that were let go
};

}  // namespace qscservice
