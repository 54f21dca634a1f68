// The replaying daemon's own side of libvelmora-usbd.so: what the program that runs a replay sets up and asks. The
// plug-in sees none of it; it knows plugin/Usbd.h only.
//
// Records of captures become messages: bulk and isochronous records fast posts, interrupt records HID optimisation
// posts (both: usbmon header as captured, then the payload at its full size, where missing bytes are filled from a
// sequence seeded by the record's number), control records posts of a readable text, and each device is announced by an
// asynchronous "IsUsbAvailable" exchange ahead of its first record in each pass (with several threads others may
// already be at later records of the device, but for the first pass, ahead of which all devices are announced). The
// agent is expected to send
//   - every fast post back as a fast post: header length 64, trailer the payload's size in its low 32 bits, same blob;
//   - every HID post back as a post "HIDOptOperation" with the same blob;
//   - to every asynchronous message the response kUsbResponsePrefix + request content;
// and to send posts nowhere. What comes back is compared byte by byte.
//
// All functions are safe on any thread.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "plugin/Usbd.h"
#include "standin/usbd/UsbCapture.h"

inline constexpr char kUsbResponsePrefix[] = "response:";
inline constexpr char kUsbControlMsgType[] = "UsbControlTransfer";  // message type of posts
inline constexpr char kUsbAsyncMsgType[] = "IsUsbAvailable";
inline constexpr uint64_t kMaxUsbReplayBytes = 1ull << 30;  // of the fast and HID posts of one pass

struct UsbReplayPlan {
    std::vector<UsbCapture> captures;  // replayed one after the other; each has devices of its own
    uint64_t loops = 1;                // passes over all captures; 0: until StopUsbd
    int threads = 1;                   // daemon threads that post; each takes the next record that none has taken
    bool timed = false;                // at the pace of the captures; else as fast as the channel takes it

    // The clock of a timed replay: returns when dueUs microseconds have passed since its start. Called by each posting
    // thread for each of its records. Empty: real time, which a stop cuts short.
    std::function<void(int64_t dueUs)> waitUntil;

    UsbdInitResult initResult = 0;  // what the daemon reports; with any value but 0 it sends nothing

    // Called on a posting thread after each hookInterval messages with their number so far, by one thread at a time,
    // while the others go on. It may take the channel down and up, and stop the daemon. 0: never.
    uint64_t hookInterval = 0;
    std::function<void(uint64_t messages)> onMessages;
};

// Messages by kind, and the bytes of their contents together.
struct UsbReplayCounts {
    uint64_t post = 0;
    uint64_t fast = 0;
    uint64_t hid = 0;
    uint64_t async = 0;
    uint64_t bytes = 0;

    uint64_t Messages() const { return post + fast + hid + async; }
};

// Time from post to return. Of several messages of equal content under way at once, the first alone is timed.
struct UsbReplayLatency {
    uint64_t samples = 0;
    uint64_t p50Ns = 0;  // upper bound of the percentile's bucket, at most 1/8 above the true value
    uint64_t p99Ns = 0;
    uint64_t maxNs = 0;                    // exact
    std::map<uint64_t, uint64_t> buckets;  // samples by the upper bound of their bucket in nanoseconds
};

// Counted from the last UsbdReplay_Configure, over all starts of the daemon since.
struct UsbReplayCounters {
    UsbReplayCounts sent;      // handed to the callbacks, the refused ones included
    UsbReplayCounts refused;   // fast and HID posts whose callback returned false; the other kinds can't tell
    UsbReplayCounts returned;  // as expected; post stays 0, async counts the bytes of responses
    uint64_t mismatched = 0;   // anything else that came
    std::string firstMismatch;
    uint64_t outstanding = 0;  // fast and HID posts not refused and not back, and open asynchronous messages
    uint64_t filterEnabled = 0;
    uint64_t filterDisabled = 0;
    uint64_t channelUps = 0;  // calls of Usbd_NotifyUsbVirtualChannelAvailable
    UsbReplayLatency fastLatency;
    UsbReplayLatency hidLatency;
    uint64_t firstSentNs = 0;  // when sending began, as nanoseconds of the steady clock; 0: not yet
    bool sendingDone = false;  // the current or last run has gone through all its passes
};

// Takes the plan for the next StartUsbd, sets all counters to 0 and forgets what is outstanding and a StopUsbd that no
// StartUsbd has met. False with the reason in error, and the former plan kept, if the daemon runs, the plan has no
// record or its messages exceed kMaxUsbReplayBytes. Without a plan the daemon reports success and sends nothing.
bool UsbdReplay_Configure(UsbReplayPlan plan, std::string* error);

UsbReplayCounters UsbdReplay_GetCounters();

// Tells the daemon the state of the channel: while it is down each thread pauses ahead of its next record. A refused
// fast or HID post takes it down too; Usbd_NotifyUsbVirtualChannelAvailable takes it up, as does up. Starts down.
void UsbdReplay_SetChannelUp(bool up);

// Waits until no StartUsbd is under way, so that no thread of the daemon sends any more. False when timeoutMS is over.
bool UsbdReplay_WaitStopped(DWORD timeoutMS);

// Waits until a run of the plan has gone through all its passes. False when timeoutMS is over.
bool UsbdReplay_WaitSent(DWORD timeoutMS);

// Waits until returned.Messages() + mismatched has reached messages. False when timeoutMS is over.
bool UsbdReplay_WaitReturned(uint64_t messages, DWORD timeoutMS);

// Waits until every fast, HID and asynchronous message sent so far and not refused is back. False when timeoutMS is
// over. Messages that the channel lost on its way never come back.
bool UsbdReplay_WaitAllReturned(DWORD timeoutMS);
