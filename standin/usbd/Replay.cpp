// The posting threads share one counter of steps and take the next each. A step's message is counted as outstanding
// before it is posted, since its return may overtake the end of the call; a refused one is taken back.
#include "standin/usbd/Replay.h"

#include <algorithm>
#include <system_error>
#include <thread>

namespace usbd {
namespace {

uint64_t NowNs() {
    return static_cast<uint64_t>(std::chrono::nanoseconds(Clock::now().time_since_epoch()).count());
}

uint64_t TotalSteps(uint64_t loops, uint64_t steps) {
    if (steps == 0) return 0;
    return loops == 0 || loops > UINT64_MAX / steps ? UINT64_MAX : loops * steps;
}

std::string Describe(MessageKind kind, size_t size) {
    return (kind == MessageKind::kFast ? "fast post of " : "HID post of ") + std::to_string(size) + " bytes";
}

}  // namespace

void CountsCell::Add(MessageKind kind, size_t size) {
    (kind == MessageKind::kPost   ? post
     : kind == MessageKind::kFast ? fast
                                  : hid)
        .fetch_add(1, std::memory_order_release);
    bytes.fetch_add(size, std::memory_order_release);
}

void CountsCell::AddAsync(size_t size) {
    async.fetch_add(1, std::memory_order_release);
    bytes.fetch_add(size, std::memory_order_release);
}

UsbReplayCounts CountsCell::Read() const {
    UsbReplayCounts counts;
    counts.post = post.load(std::memory_order_acquire);
    counts.fast = fast.load(std::memory_order_acquire);
    counts.hid = hid.load(std::memory_order_acquire);
    counts.async = async.load(std::memory_order_acquire);
    counts.bytes = bytes.load(std::memory_order_acquire);
    return counts;
}

Replay::Replay(UsbReplayPlan replayPlan, std::unique_ptr<MessageTable> messageTable, ChannelGate& channelGate)
    : plan(std::move(replayPlan)),
      table(std::move(messageTable)),
      totalSteps(TotalSteps(plan.loops, table->Steps().size())),
      gate(channelGate) {}

void Replay::Run(const Callbacks& runCallbacks) {
    callbacks = runCallbacks;
    nextStep.store(0, std::memory_order_relaxed);
    {
        LockScope scope(lock);
        sendingDone = false;
    }
    if (!gate.Enter()) return;
    uint64_t never = 0;
    firstSentNs.compare_exchange_strong(never, NowNs(), std::memory_order_relaxed);
    if (!AnnounceDevices()) return;
    runStart = Clock::now();

    std::atomic<bool> finished{true};  // relaxed: read after the joins
    const auto post = [this, &finished] {
        if (!PostRecords()) finished.store(false, std::memory_order_relaxed);
    };
    std::vector<std::thread> helpers;
    try {
        while (static_cast<int>(helpers.size()) + 1 < plan.threads) helpers.emplace_back(post);
    } catch (const std::system_error&) {
        // The threads that there are share the work.
    }
    post();
    for (std::thread& helper : helpers) helper.join();
    LockScope scope(lock);
    sendingDone = finished.load(std::memory_order_relaxed);
    progress.NotifyAll();
}

bool Replay::AnnounceDevices() {
    for (size_t device = 0; device < table->Devices().size(); ++device) {
        if (!Announce(static_cast<int>(device))) return false;
    }
    return true;
}

bool Replay::PostRecords() {
    const std::vector<Step>& steps = table->Steps();
    for (;;) {
        const uint64_t number = nextStep.fetch_add(1, std::memory_order_relaxed);
        if (number >= totalSteps) return true;
        if (plan.timed && !WaitDue(number)) return false;
        const Step& step = steps[static_cast<size_t>(number % steps.size())];
        const bool firstPass = number < steps.size();
        if (!firstPass && step.device >= 0 && !Announce(step.device)) return false;
        if (!PostMessage(*step.message)) return false;
    }
}

bool Replay::WaitDue(uint64_t number) {
    const uint64_t steps = table->Steps().size();
    const int64_t dueUs = static_cast<int64_t>(number / steps) * table->PassUs() +
                          table->Steps()[static_cast<size_t>(number % steps)].dueUs;
    if (!plan.waitUntil) return gate.WaitUntil(runStart + std::chrono::microseconds(dueUs));
    plan.waitUntil(dueUs);
    return !gate.Stopped();
}

bool Replay::Announce(int device) {
    if (!gate.Enter()) return false;
    const AsyncMessage message = exchanges.Open(table->Devices()[static_cast<size_t>(device)]);
    sent.AddAsync(message.content.size());
    callbacks.async(kUsbAsyncMsgType, message.content.size(), message.content.c_str(), callbacks.finalResponse,
                    message.context, message.id.c_str());
    CountForHook();
    return true;
}

bool Replay::PostMessage(Message& message) {
    const std::optional<ChannelGate::Pass> pass = gate.Enter();
    if (!pass) return false;
    sent.Add(message.kind, message.content.size());
    if (message.kind == MessageKind::kPost) {
        callbacks.post(kUsbControlMsgType, message.content.size(), message.content.c_str());
    } else if (!PostForReturn(message)) {
        Refuse(message);
        gate.ShutIfStill(*pass);
    }
    CountForHook();
    return true;
}

bool Replay::PostForReturn(Message& message) {
    if (message.outstanding.fetch_add(1, std::memory_order_relaxed) == 0)
        message.sentAtNs.store(NowNs(), std::memory_order_relaxed);
    const auto* data = reinterpret_cast<const unsigned char*>(message.content.data());
    return (message.kind == MessageKind::kFast ? callbacks.fast : callbacks.hid)(message.content.size(), data);
}

void Replay::Refuse(Message& message) {
    message.sentAtNs.store(0, std::memory_order_relaxed);
    refused.Add(message.kind, message.content.size());
    if (!message.TakeBack())
        return OnMismatch(Describe(message.kind, message.content.size()) + ": came back although it was refused");
    WakeWaiters();
}

// The thread that finds no hook due calls it, and goes on for those that become due meanwhile.
void Replay::CountForHook() {
    const uint64_t number = messages.fetch_add(1, std::memory_order_relaxed) + 1;
    if (plan.hookInterval == 0 || !plan.onMessages || number % plan.hookInterval != 0) return;
    if (hooksDue.fetch_add(1, std::memory_order_acq_rel) > 0) return;
    do {
        hookMessages += plan.hookInterval;
        plan.onMessages(hookMessages);
    } while (hooksDue.fetch_sub(1, std::memory_order_acq_rel) > 1);
}

void Replay::OnReturned(MessageKind kind, std::string_view content) {
    Message* message = table->Find(kind, content);
    if (!message) return OnMismatch(Describe(kind, content.size()) + ": never sent");
    if (!message->TakeBack())
        return OnMismatch(Describe(kind, content.size()) + ": came back more often than it was sent");
    if (const uint64_t sentAt = message->sentAtNs.exchange(0, std::memory_order_relaxed))
        (kind == MessageKind::kFast ? fastLatency : hidLatency).Add(NowNs() - sentAt);
    returned.Add(kind, content.size());
    CountArrival();
}

void Replay::OnAsyncResponse(void* context, int status, std::string_view response) {
    if (status != 0) return OnMismatch("final response: status " + std::to_string(status));
    const std::string wrong = exchanges.Close(context, response);
    if (!wrong.empty()) return OnMismatch("final response: " + wrong);
    returned.AddAsync(response.size());
    CountArrival();
}

void Replay::OnFilter(bool enabled) {
    (enabled ? filterEnabled : filterDisabled).fetch_add(1, std::memory_order_relaxed);
}

// A message still outstanding from before may be lost, and nothing tells; its time would be that of a later one.
void Replay::OnChannelUp() {
    channelUps.fetch_add(1, std::memory_order_relaxed);
    table->ForgetTimes();
}

void Replay::OnMismatch(const std::string& text) {
    {
        LockScope scope(lock);
        if (mismatched++ == 0) firstMismatch = text;
    }
    CountArrival();
}

void Replay::CountArrival() {
    if (arrived.fetch_add(1, std::memory_order_seq_cst) + 1 >= wakeAt.load(std::memory_order_seq_cst)) WakeWaiters();
}

void Replay::WakeWaiters() {
    LockScope scope(lock);
    wakeAt.store(UINT64_MAX, std::memory_order_seq_cst);
    progress.NotifyAll();
}

// What came back is read first: the result may be too high while messages are sent, never too low. A message that was
// refused and came back all the same is counted twice on the way back; the mismatch tells.
uint64_t Replay::Outstanding() const {
    const UsbReplayCounts back = returned.Read();
    const UsbReplayCounts dropped = refused.Read();
    const UsbReplayCounts out = sent.Read();
    const uint64_t awaited = out.Messages() - out.post;
    return awaited - std::min(awaited, dropped.Messages() + back.Messages());
}

UsbReplayCounters Replay::Counters() {
    UsbReplayCounters counters;
    counters.outstanding = Outstanding();
    counters.returned = returned.Read();
    counters.refused = refused.Read();
    counters.sent = sent.Read();
    counters.filterEnabled = filterEnabled.load(std::memory_order_relaxed);
    counters.filterDisabled = filterDisabled.load(std::memory_order_relaxed);
    counters.channelUps = channelUps.load(std::memory_order_relaxed);
    counters.firstSentNs = firstSentNs.load(std::memory_order_relaxed);
    counters.fastLatency = fastLatency.Read();
    counters.hidLatency = hidLatency.Read();
    LockScope scope(lock);
    counters.mismatched = mismatched;
    counters.firstMismatch = firstMismatch;
    counters.sendingDone = sendingDone;
    return counters;
}

bool Replay::WaitSent(DWORD timeoutMS) {
    const Clock::time_point deadline = DeadlineAfter(timeoutMS);
    LockScope scope(lock);
    while (!sendingDone) {
        if (!progress.WaitUntil(lock, deadline)) return sendingDone;
    }
    return true;
}

bool Replay::WaitReturned(uint64_t wanted, DWORD timeoutMS) {
    const Clock::time_point deadline = DeadlineAfter(timeoutMS);
    LockScope scope(lock);
    for (;;) {
        wakeAt.store(std::min(wakeAt.load(std::memory_order_relaxed), wanted), std::memory_order_seq_cst);
        if (arrived.load(std::memory_order_seq_cst) >= wanted) return true;
        if (!progress.WaitUntil(lock, deadline)) return arrived.load(std::memory_order_seq_cst) >= wanted;
    }
}

bool Replay::WaitAllReturned(DWORD timeoutMS) {
    const Clock::time_point deadline = DeadlineAfter(timeoutMS);
    LockScope scope(lock);
    for (;;) {
        const uint64_t soFar = arrived.load(std::memory_order_seq_cst);
        wakeAt.store(std::min(wakeAt.load(std::memory_order_relaxed), soFar + Outstanding()),
                     std::memory_order_seq_cst);
        // An arrival ahead of wakeAt has woken nobody; after this load Outstanding() knows of it.
        (void)arrived.load(std::memory_order_seq_cst);
        if (Outstanding() == 0) return true;
        if (!progress.WaitUntil(lock, deadline)) return Outstanding() == 0;
    }
}

}  // namespace usbd
