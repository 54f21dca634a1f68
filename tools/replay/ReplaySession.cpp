// The thread of Run only looks on: the daemon's threads send, the channel's threads deliver. All its waits are short,
// so that an agent that dies, a channel that stays down or a request to stop is noticed wherever the replay stands.
#include "tools/replay/ReplaySession.h"
#include "logging/Log.h"

#include <algorithm>

#include "plugin/Usbd.h"
#include "tools/replay/AgentProcess.h"
#include "tools/replay/Layout.h"
#include "tools/replay/ProgramLog.h"
#include "tools/replay/SharedAgent.h"

using namespace std::chrono_literals;

namespace {

constexpr DWORD kTickMS = 50;
constexpr DWORD kArrivalTickMS = 5;  // the agent alone knows of posts that arrived, and has to be asked
constexpr auto kReadyLimit = 10s;
constexpr auto kSendLimit = 30s;     // without any movement
constexpr auto kArrivalLimit = 10s;  // the same, once all is sent
constexpr int kAgentEndMS = 1000;    // for an agent that is gone or beyond help
constexpr int kAgentStopMS = 10000;  // for one that is well

constexpr char kDesktopPid[] = "usb-replay";

}  // namespace

CaptureSummary Summarize(const UsbCapture& capture) {
    CaptureSummary summary;
    summary.file = capture.Name();
    summary.records = capture.Records().size();
    for (const UsbRecord& record : capture.Records()) {
        switch (record.type) {
            case UsbTransferType::kIsochronous:
                summary.iso++;
                break;
            case UsbTransferType::kInterrupt:
                summary.interrupt++;
                break;
            case UsbTransferType::kControl:
                summary.control++;
                break;
            case UsbTransferType::kBulk:
                summary.bulk++;
                break;
        }
    }
    return summary;
}

ReplaySession::ReplaySession(const ReplayOptions& replayOptions, std::vector<UsbCapture> usbCaptures,
                             const std::atomic<bool>& stop, OnProgress onProgress, OnPrepared onPrepared)
    : options(replayOptions),
      captures(std::move(usbCaptures)),
      stopRequested(stop),
      progress(std::move(onProgress)),
      prepared(std::move(onPrepared)) {
    for (const UsbCapture& capture : captures) total += capture.Records().size() * options.loop;
}

ReplaySession::~ReplaySession() = default;

bool ReplaySession::Run(ReplayReport* report, std::string* error) {
    const bool ran = Start(error);
    if (ran) {
        Send();
        AwaitArrivals();
    }
    Shutdown();
    if (!ran) return false;
    for (const UsbCapture& capture : captures) report->captures.push_back(Summarize(capture));
    ledger.Report(Fell(), report);
    // In a run that failed the parties' figures are of different moments: what they contradict each other in is idle.
    if (failed) report->problems.clear();
    report->problems.insert(report->problems.begin(), problems.begin(), problems.end());
    report->interruptions = interrupter->Count();
    report->logs = {FindPluginLog()};
    LOG(Info, "%llu messages lost, %llu changed on the way, %llu interruptions\n",
        static_cast<unsigned long long>(report->Lost()), static_cast<unsigned long long>(report->mismatched),
        static_cast<unsigned long long>(report->interruptions));
    report->stoppedEarly = stoppedEarly;
    const Clock::time_point started{std::chrono::nanoseconds(ledger.daemon.firstSentNs)};
    if (ledger.daemon.firstSentNs > 0)
        report->seconds = std::max(0.0, std::chrono::duration<double>(finished - started).count());
    if (report->seconds > 0) report->messagesPerSecond = static_cast<double>(report->sent.Messages()) / report->seconds;
    return true;
}

bool ReplaySession::Start(std::string* error) {
    return ConfigureDaemon(error) && StartAgent(error) && StartPlugin(error) && Connect(error);
}

bool ReplaySession::StartAgent(std::string* error) {
    LOG(Info, "Replaying %zu captures %u times on %u threads over %s\n", captures.size(), options.loop, options.threads,
        options.transport == Transport::Unix ? "unix" : "tcp");
    if (options.agentControl.empty()) {
        agent = AgentProcess::Start(AgentPath(), AgentArguments(options), error);
    } else {
        agent = SharedAgent::Join(options.agentAddress, options.agentControl, host.Channel().Account().end, error);
    }
    return agent != nullptr;
}

bool ReplaySession::ConfigureDaemon(std::string* error) {
    UsbReplayPlan plan;
    plan.captures = captures;
    plan.loops = options.loop;
    plan.threads = static_cast<int>(options.threads);
    plan.timed = options.timed;
    plan.hookInterval = options.interruptEvery;
    plan.onMessages = [this](uint64_t sent) {
        LOG(Debug, "%llu messages sent, the channel is interrupted\n", static_cast<unsigned long long>(sent));
        interrupter->Interrupt();
    };
    return UsbdReplay_Configure(std::move(plan), error);
}

bool ReplaySession::StartPlugin(std::string* error) {
    const std::string path = PluginPath();
    const std::string args = qscservice::PluginHost::EncodeStartupArgs(
        {{"VChan.UsbOverVChan.enabled", "TRUE"},
         {"VChan.UsbOverVChan.desktopPID", kDesktopPid},
         {"VChan.UsbOverVChan.isLoadUsbdNeeded", options.startByClient ? "FALSE" : "TRUE"}});
    if (!host.Load(path, error) || !host.SetStartupArgs(args, error)) return false;
    initialized = host.Init(error);
    if (!initialized) return false;
    client = EmbeddingClient::Open(path, error);
    if (!client) return false;
    if (!client->Init()) {
        *error = "the plug-in refuses the embedding client";
        return false;
    }
    interrupter = std::make_unique<Interrupter>(host.Channel(), *client);
    if (options.startByClient) client->StartUsbd();
    return true;
}

bool ReplaySession::Connect(std::string* error) {
    hasInstance = host.CreateInstance(error);
    if (!hasInstance) return false;
    if (prepared) prepared();
    bool ready = host.Channel().Dial(agent->Address(), error);
    if (!ready) agent->WaitForEnd(kAgentEndMS);
    const Clock::time_point limit = Clock::now() + kReadyLimit;
    while (ready && !client->WaitForInitReports(1, kTickMS)) {
        if (Clock::now() < limit && agent->HowItEnded().empty()) continue;
        *error = "the plug-in does not get ready: no report of the daemon's start";
        ready = false;
    }
    const std::string end = ready ? "" : agent->HowItEnded();
    if (!end.empty()) *error = "the agent " + end + " before the channel was ready";
    return ready;
}

void ReplaySession::Send() {
    lastMove = Clock::now();
    while (!UsbdReplay_WaitSent(kTickMS)) {
        if (stopRequested.load(std::memory_order_relaxed)) return StopSending();
        if (!Healthy() || !Look()) return;
        if (!options.timed && !Moves(kSendLimit)) return Fail("the daemon cannot send any more");
    }
}

// The daemon's threads have to be through, so that nothing is sent any more while the last messages are awaited.
void ReplaySession::StopSending() {
    stoppedEarly = true;
    interrupter->Finish();
    StopUsbd(1);
    lastMove = Clock::now();
    while (!UsbdReplay_WaitStopped(kTickMS)) {
        if (!Healthy() || !Look()) return;
        if (!Moves(kSendLimit)) return Fail("the daemon does not stop");
    }
}

void ReplaySession::AwaitArrivals() {
    lastMove = Clock::now();
    bool allBack = false;
    while (!failed) {
        if (!Fell() && !allBack) {
            allBack = UsbdReplay_WaitAllReturned(kTickMS);
            finished = Clock::now();
        }
        if (!Healthy() || !Look()) break;
        if (ledger.Settled(Fell())) {
            if (!allBack) finished = Clock::now();
            return;
        }
        if (!Moves(kArrivalLimit)) break;  // the account tells what is lost
        if (allBack || Fell())
            UsbdReplay_WaitReturned(ledger.daemon.returned.Messages() + ledger.daemon.mismatched + 1, kArrivalTickMS);
    }
    finished = Clock::now();
}

// A sender may wait for a peer that takes nothing any more, and the plug-in for that sender: so a failed run takes the
// channel down first.
void ReplaySession::Shutdown() {
    if (interrupter) interrupter->Abort();
    if (failed) host.Channel().Interrupt();
    std::string error;
    if (hasInstance && !host.DestroyInstance(&error)) problems.push_back(error);
    if (initialized && !host.Exit(&error)) problems.push_back(error);
    if (client && !client->Exit()) problems.push_back("the plug-in does not let the embedding client go");
    client.reset();
    host.Stop();
    LookHere();
    if (!agent) return;
    if (const auto counts = agent->Stop(failed ? kAgentEndMS : kAgentStopMS)) {
        ledger.agent = *counts;
    } else if (!failed) {
        const std::string end = agent->HowItEnded();
        Fail("the agent " + (end.empty() ? "does not end" : end));
    }
}

bool ReplaySession::Healthy() {
    const bool down = interrupter->FellByItself();
    if (down) agent->WaitForEnd(kAgentEndMS);
    if (const std::string end = agent->HowItEnded(); !end.empty()) {
        channelLost = true;
        Fail("the agent " + end + " during the replay");
    } else if (const std::string failure = interrupter->Failure(); !failure.empty()) {
        Fail(failure);
    } else if (down) {
        channelLost = true;
        const std::string reason = host.Channel().LastError();
        Fail("the channel fell by itself" + (reason.empty() ? "" : ": " + reason));
    }
    return !failed;
}

bool ReplaySession::Moves(std::chrono::milliseconds limit) {
    const uint64_t moved = ledger.daemon.sent.Messages() + ledger.Arrived();
    const Clock::time_point now = Clock::now();
    if (moved != lastMoved) {
        lastMoved = moved;
        lastMove = now;
    }
    return now - lastMove < limit;
}

bool ReplaySession::Look() {
    LOG(Trace, "%llu messages sent, %llu arrived\n", static_cast<unsigned long long>(ledger.daemon.sent.Messages()),
        static_cast<unsigned long long>(ledger.Arrived()));
    if (const auto counts = agent->Ask()) {
        ledger.agent = *counts;
    } else {
        agent->WaitForEnd(kAgentEndMS);
        if (Healthy()) Fail("the agent does not answer");
    }
    LookHere();
    if (progress) progress(ledger.daemon.sent.Messages() - ledger.daemon.sent.async, total);
    return !failed;
}

void ReplaySession::LookHere() {
    ledger.openRequests = host.Channel().OpenRequests();
    ledger.channel = host.Channel().Counts();
    ledger.daemon = UsbdReplay_GetCounters();
}

void ReplaySession::Fail(const std::string& problem) {
    failed = true;
    problems.push_back(problem);
}
