// The ways to a peer beside each other, both ends in one process over a Unix socket: the round trip of a message
// channel and of a request, and the bytes of a stream beside a bare socket pair.
#include <benchmark/benchmark.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "rpc/QSCServiceCommand.h"
#include "rpc/RPCManager.h"
#include "rpc/RPCPluginInstance.h"
#include "rpc/RPCVariant.h"
#include "standin/qscservice/ChannelObject.h"
#include "standin/qscservice/Server.h"
#include "standin/qscservice/ServiceEnd.h"

namespace {

using qscservice::ServiceEnd;
using qscservice::Value;

constexpr uint32_t kReadyMS = 10000;
constexpr char kMsgChannel[] = "bench";
constexpr size_t kChunk = 64 * 1024;
constexpr size_t kStreamBytes = 64 << 20;

class Command : public QSCServiceCommand {
public:
    using QSCServiceCommand::QSCServiceCommand;
};

class EchoInstance : public RPCPluginInstance {
public:
    explicit EchoInstance(RPCManager* manager) : RPCPluginInstance(manager, RefCountOn) {}

    void OnReady() override { OpenMsgChannel(kMsgChannel); }
    void OnMsgChannelPeerOpened(void* handle, void* a, QscMsgChannelID, void* b, void* c) override {
        if (c) SendMsgChannel(handle, a, b, c);
    }
    void OnInvoke(void* context) override {
        Command request(GetChannelContextInterface(), GetVariantInterface(), context);
        RPCVariant value(this);
        if (request.GetParam(0, &value)) request.AppendReturnVal(&value);
    }
};

class EchoManager : public RPCManager {
public:
    EchoManager() : RPCManager("Bench", "UsbRedirControlObj", "UsbRedirDataObj", "UsbRedirDataObjTcp", RefCountOn) {}

    RPCPluginInstance* OnCreateServerInstance(QscServerID) override {
        instance = new EchoInstance(this);
        return instance.Get();
    }
    bool OnServerConnected(QSCService_SessionType type, QscServerID id) override {
        return RPCManager::OnServerConnected(type, id) && StartServer(id);
    }
    bool ConfigureTcpSideChannel() override {
        SetServerInterface(qscservice::kServerTable);
        return true;
    }

    RCPtr<EchoInstance> instance;
};

// Both ends, ready, with the message channel open on both.
class Ends {
public:
    Ends() : client(Handlers(), Options()) {
        manager->MultiServerInit(0);
        std::string error;
        if (!client.Channel().Dial(qscservice::ServerAddress(), &error) || !client.WaitReady(kReadyMS)) std::abort();
        static constexpr QSCService_MsgChannelNotifySink kSink = {1, OnOpened, nullptr, OnWords};
        if (!client.Channel().OpenMsgChannel(this, kMsgChannel, kSink)) std::abort();
        Wait([this] { return peerOpened; });
    }
    ~Ends() {
        client.Channel().Close();
        manager->instance = nullptr;
        manager->MultiServerExit(0, nullptr);
    }

    // Runs one after the other, each begun where the one before has ended.
    void RunRoundTrips(int64_t count, void (Ends::*send)()) {
        {
            const std::lock_guard guard(lock);
            left = count;
            next = send;
        }
        (this->*send)();
        Wait([this] { return left == 0; });
    }
    void SendWords() { qscservice::ServiceChannel::SendMsgChannel(msgChannel, this, this, this); }
    void SendRequest() { client.Request(2, {Value(uint32_t{7})}); }

    int ClientStream() {
        const qscservice::CurrentChannel current(&client.Channel());
        const QSC_INTERFACE_ID id = QSC_MakeInterfaceId(0x0B);
        QSCService_ChannelInterface table = {};
        int fd = 0;
        manager->QueryInterface(&id, &table);
        return table.SwitchToStreamData && table.SwitchToStreamData("stream", client.Channel().Handle(), &fd) ? fd : 0;
    }

    RCPtr<EchoManager> manager{new EchoManager};

private:
    ServiceEnd::Handlers Handlers() {
        return {.onReady = {},
                .onNotReady = {},
                .onMessage = {},
                .onDone = [this](uint32_t, qscservice::InboundMessage&) { Returned(); },
                .onAbort = {}};
    }
    static ServiceEnd::Options Options() {
        ServiceEnd::Options options;
        options.channel.role = qscservice::Role::Client;
        return options;
    }
    static Bool OnOpened(void* context, QscMsgChannelID id) {
        static_cast<Ends*>(context)->msgChannel = id;
        return TRUE;
    }
    static void OnWords(void* context, void*, QscMsgChannelID, void*, void* c) {
        Ends& ends = *static_cast<Ends*>(context);
        if (c) return ends.Returned();
        const std::lock_guard guard(ends.lock);
        ends.peerOpened = true;
        ends.changed.notify_all();
    }
    void Returned() {
        void (Ends::*send)() = nullptr;
        {
            const std::lock_guard guard(lock);
            if (--left > 0) {
                send = next;
            } else {
                changed.notify_all();
            }
        }
        if (send) (this->*send)();
    }
    template <typename Condition>
    void Wait(Condition condition) {
        std::unique_lock guard(lock);
        changed.wait(guard, condition);
    }

    std::mutex lock;  // guards the three below
    std::condition_variable changed;
    bool peerOpened = false;
    int64_t left = 0;
    void (Ends::*next)() = nullptr;
    std::atomic<QscMsgChannelID> msgChannel{nullptr};
    ServiceEnd client;
};

void RoundTrip(benchmark::State& state, void (Ends::*send)()) {
    Ends ends;
    ends.RunRoundTrips(1000, send);
    for (auto _ : state) ends.RunRoundTrips(state.range(0), send);
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

void PumpOnce(int from, int to, std::vector<char>& buffer) {
    std::thread writer([&] {
        const std::vector<char> chunk(kChunk, 'x');
        for (size_t sent = 0; sent < kStreamBytes;) {
            const ssize_t took = write(from, chunk.data(), std::min(kChunk, kStreamBytes - sent));
            if (took <= 0) return;
            sent += static_cast<size_t>(took);
        }
    });
    for (size_t received = 0; received < kStreamBytes;) {
        const ssize_t took = read(to, buffer.data(), buffer.size());
        if (took <= 0) break;
        received += static_cast<size_t>(took);
    }
    writer.join();
}

void Pump(benchmark::State& state, int from, int to) {
    std::vector<char> buffer(kChunk);
    for (auto _ : state) PumpOnce(from, to, buffer);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kStreamBytes));
    close(from);
    close(to);
}

void StreamData(benchmark::State& state) {
    Ends ends;
    int clientEnd = 0;
    std::thread asking([&] { clientEnd = ends.ClientStream(); });
    const int serverEnd = ends.manager->instance->SwitchToStreamDataMode();
    asking.join();
    if (serverEnd == 0 || clientEnd == 0) return state.SkipWithError("no stream");
    Pump(state, serverEnd, clientEnd);
}

void SocketPair(benchmark::State& state) {
    int fds[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0) return state.SkipWithError("no socket pair");
    Pump(state, fds[0], fds[1]);
}

}  // namespace

constexpr int kRoundTrips = 1000;  // of an iteration
BENCHMARK_CAPTURE(RoundTrip, MessageChannel, &Ends::SendWords)->Arg(kRoundTrips)->UseRealTime();
BENCHMARK_CAPTURE(RoundTrip, Request, &Ends::SendRequest)->Arg(kRoundTrips)->UseRealTime();
BENCHMARK(StreamData)->Name("Stream/StreamData")->UseRealTime();
BENCHMARK(SocketPair)->Name("Stream/SocketPair")->UseRealTime();

BENCHMARK_MAIN();
