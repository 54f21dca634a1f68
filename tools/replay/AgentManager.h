// The agent on the framework: its manager, and the instance that serves one client.
#pragma once

#include <atomic>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "rpc/RPCManager.h"
#include "rpc/RPCPluginInstance.h"
#include "tools/replay/Agent.h"

// One session. The service delivers its messages one at a time; what others may ask is atomic.
class AgentInstance : public RPCPluginInstance {
public:
    AgentInstance(RPCManager* manager, AgentBook* book);

    void OnReady() override;
    void OnNotReady() override;
    void OnInvoke(void* context) override;

    SessionView View();

private:
    using Clock = std::chrono::steady_clock;

    bool Post(uint32_t command, const std::function<bool(class AgentCommand&)>& fill);
    bool PostText(const char* type, const QSC_RPC_BLOB& content);
    bool CountPost(class AgentCommand& message);
    bool ReturnFastPost(class AgentCommand& message);
    bool Answer(class AgentCommand& message);
    bool ReturnHidPost(class AgentCommand& message);
    void Note(size_t bytes);

    AgentBook& book;  // outlives all instances
    const Clock::time_point begin = Clock::now();
    // Of the delivery thread alone.
    ClientBook* account;  // from OnReady on the client's own
    std::vector<uint8_t> response;
    mutable qscservice::Mutex lock;  // guards id
    std::string id GUARDED_BY(lock);
    // Lone figures for View: relaxed.
    std::atomic<uint64_t> client{0};
    std::atomic<uint64_t> received{0};
    std::atomic<uint64_t> bytes{0};
    std::atomic<uint64_t> replies{0};
    std::atomic<Clock::rep> lastMessage{0};
};

class AgentManager : public RPCManager {
public:
    AgentManager(AgentBook* book, SideChannel sideChannel, std::function<void()> onBound)
        : RPCManager("UsbRedirection", "UsbRedirControlObj", "UsbRedirDataObj", "UsbRedirDataObjTcp", RefCountOn),
          book(book),
          sideChannel(sideChannel),
          onBound(std::move(onBound)) {}

    RPCPluginInstance* OnCreateServerInstance(QscServerID id) override;
    void OnDestroyServerInstance(QscServerID id, RCPtr<RPCPluginInstance> instance) override;
    bool OnServerConnected(QSCService_SessionType type, QscServerID id) override;
    // The service is bound from here on: takes its server table, and tells whoever waits for that.
    bool ConfigureTcpSideChannel() override;
    bool ConfigureVirtualSideChannel() override;
    void OnServerExit() override;

    std::vector<RCPtr<AgentInstance>> Instances();

private:
    AgentBook* const book;
    const SideChannel sideChannel;
    const std::function<void()> onBound;
    KxMutex lock{false, ""};  // guards instances
    std::map<QscServerID, RCPtr<AgentInstance>> instances GUARDED_BY(lock);
};
