// One plan under replay: the posting threads' work, the check of what comes back, and the counters of both.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "standin/usbd/AsyncExchanges.h"
#include "standin/usbd/ChannelGate.h"
#include "standin/usbd/LatencyHistogram.h"
#include "standin/usbd/MessageTable.h"
#include "standin/usbd/UsbdReplay.h"

namespace usbd {

struct Callbacks {
    Usbd_InitDoneCb initDone = nullptr;
    Usbd_PostMsgCb post = nullptr;
    Usbd_PostMsgFastCb fast = nullptr;
    Usbd_PostHIDOptMsgFastCb hid = nullptr;
    Usbd_SendAsyncMsgCb async = nullptr;
    Usbd_AsyncFinalRespCb finalResponse = nullptr;  // goes with each asynchronous message

    bool HaveChannel() const { return post && fast && hid && async; }
};

// Added to with release, read with acquire: who sees a message counted as returned sees it counted as sent.
struct alignas(64) CountsCell {
    std::atomic<uint64_t> post{0};
    std::atomic<uint64_t> fast{0};
    std::atomic<uint64_t> hid{0};
    std::atomic<uint64_t> async{0};
    std::atomic<uint64_t> bytes{0};

    void Add(MessageKind kind, size_t size);
    void AddAsync(size_t size);
    UsbReplayCounts Read() const;
};

class Replay {
public:
    Replay(UsbReplayPlan replayPlan, std::unique_ptr<MessageTable> messageTable, ChannelGate& channelGate);

    UsbdInitResult InitResult() const { return plan.initResult; }

    // Goes through all passes and returns when they are done or the gate was stopped. One run at a time.
    void Run(const Callbacks& runCallbacks);

    // What came. Any thread, also while no run is active.
    void OnReturned(MessageKind kind, std::string_view content);
    void OnAsyncResponse(void* context, int status, std::string_view response);
    void OnFilter(bool enabled);
    void OnChannelUp();
    void OnMismatch(const std::string& text);

    UsbReplayCounters Counters();
    bool WaitSent(DWORD timeoutMS);
    bool WaitReturned(uint64_t messages, DWORD timeoutMS);
    bool WaitAllReturned(DWORD timeoutMS);

private:
    // The parts of a run, on the posting threads. False: the gate was stopped.
    bool AnnounceDevices();
    bool PostRecords();
    bool WaitDue(uint64_t number);
    bool Announce(int device);
    bool PostMessage(Message& message);
    bool PostForReturn(Message& message);
    void Refuse(Message& message);
    void CountForHook();

    uint64_t Outstanding() const;
    void CountArrival();
    void WakeWaiters();

    const UsbReplayPlan plan;
    const std::unique_ptr<MessageTable> table;
    const uint64_t totalSteps;  // of all passes
    ChannelGate& gate;

    // Set ahead of the posting threads' start.
    Callbacks callbacks;
    Clock::time_point runStart;

    std::atomic<uint64_t> nextStep{0};  // relaxed: hands out numbers
    std::atomic<uint64_t> messages{0};  // relaxed: hands out numbers
    // Intervals whose hook is still to be called. Acquire and release: hands hookMessages from one caller to the next.
    std::atomic<uint64_t> hooksDue{0};
    uint64_t hookMessages = 0;

    CountsCell sent;
    CountsCell refused;
    CountsCell returned;
    AsyncExchanges exchanges;
    LatencyHistogram fastLatency;
    LatencyHistogram hidLatency;
    std::atomic<uint64_t> firstSentNs{0};  // these four relaxed: numbers of their own
    std::atomic<uint64_t> filterEnabled{0};
    std::atomic<uint64_t> filterDisabled{0};
    std::atomic<uint64_t> channelUps{0};

    // Messages that came, matched or not, and the number of them that some waiter wants to hear of. Sequentially
    // consistent: of an arrival and a waiter that sets wakeAt at least one sees the other.
    std::atomic<uint64_t> arrived{0};
    std::atomic<uint64_t> wakeAt{UINT64_MAX};

    Lock lock;
    Condition progress;
    bool sendingDone GUARDED_BY(lock) = false;
    uint64_t mismatched GUARDED_BY(lock) = 0;
    std::string firstMismatch GUARDED_BY(lock);
};

}  // namespace usbd
