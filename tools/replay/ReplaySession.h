// One replay from start to end: the agent, its own or one that it shares with other sessions, the loaded plug-in with
// its service, daemon and embedding client, the traffic between them, and the account of it.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "standin/client/EmbeddingClient.h"
#include "standin/qscservice/PluginHost.h"
#include "standin/usbd/UsbCapture.h"
#include "tools/replay/AgentAccess.h"
#include "tools/replay/Interrupter.h"
#include "tools/replay/Ledger.h"
#include "tools/replay/Options.h"
#include "tools/replay/Report.h"

class ReplaySession {
public:
    // Called some times a second on the thread of Run with the messages sent so far and those of the whole replay.
    using OnProgress = std::function<void(uint64_t sent, uint64_t total)>;
    // Called on the thread of Run when everything stands but the connection to the agent; it is made on return.
    using OnPrepared = std::function<void()>;

    // stopRequested may turn true at any time, also in a signal handler: sending ends, what was sent is awaited, and
    // the run ends in order. There must be a capture, and of all sessions of a process only one may run at a time.
    ReplaySession(const ReplayOptions& options, std::vector<UsbCapture> captures,
                  const std::atomic<bool>& stopRequested, OnProgress onProgress, OnPrepared onPrepared = nullptr);
    ReplaySession(const ReplaySession&) = delete;
    ReplaySession& operator=(const ReplaySession&) = delete;
    ~ReplaySession();

    // Runs the whole replay, once. False, with one line in error, if it never came to sending; whatever goes wrong
    // later stands in the report. All that was started has ended when it returns.
    bool Run(ReplayReport* report, std::string* error);

private:
    using Clock = std::chrono::steady_clock;

    bool Start(std::string* error);
    bool StartAgent(std::string* error);
    bool ConfigureDaemon(std::string* error);
    bool StartPlugin(std::string* error);
    bool Connect(std::string* error);
    void Send();
    void StopSending();
    void AwaitArrivals();
    void Shutdown();

    bool Healthy();
    bool Moves(std::chrono::milliseconds limit);
    bool Look();
    void LookHere();
    bool Fell() const { return channelLost || (interrupter && interrupter->Count() > 0); }
    void Fail(const std::string& problem);

    const ReplayOptions options;
    const std::vector<UsbCapture> captures;
    const std::atomic<bool>& stopRequested;
    const OnProgress progress;
    const OnPrepared prepared;
    uint64_t total = 0;  // messages of the whole replay

    std::unique_ptr<AgentAccess> agent;
    qscservice::PluginHost host;
    std::unique_ptr<EmbeddingClient> client;
    std::unique_ptr<Interrupter> interrupter;
    bool initialized = false;  // the plug-in
    bool hasInstance = false;

    Ledger ledger;  // as of the last look
    bool stoppedEarly = false;
    bool failed = false;       // the run can't go on; problems says why
    bool channelLost = false;  // it fell by itself or with the agent
    std::vector<std::string> problems;
    Clock::time_point finished;  // the last message was seen to have arrived
    Clock::time_point lastMove;
    uint64_t lastMoved = 0;
};

// The records of a capture by kind.
CaptureSummary Summarize(const UsbCapture& capture);
