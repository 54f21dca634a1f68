// The messages that one pass over some captures makes, made once ahead of the run: the posting threads walk over steps,
// and what comes back is looked up by its content.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "standin/usbd/UsbCapture.h"

namespace usbd {

enum class MessageKind : uint8_t { kPost, kFast, kHid };

// A message that records of equal content share.
struct Message {
    MessageKind kind;
    std::string content;

    // Fast and HID posts that were sent and aren't back. Relaxed: only the number counts, nothing is passed on by it.
    std::atomic<uint32_t> outstanding{0};
    // When the first of the outstanding ones was sent, 0 if none is timed. Relaxed: a time and nothing else.
    std::atomic<uint64_t> sentAtNs{0};

    // Takes one of the outstanding ones off. False if there is none.
    bool TakeBack();

    Message(MessageKind messageKind, std::string text) : kind(messageKind), content(std::move(text)) {}
};

struct Step {
    Message* message;
    int64_t dueUs;  // after the start of the pass; never falls from step to step
    int device;     // index in Devices() if this is the first record of that device, else -1
};

class MessageTable {
public:
    // Null if the fast and HID posts exceed kMaxUsbReplayBytes, with the reason in error.
    static std::unique_ptr<MessageTable> Make(const std::vector<UsbCapture>& captures, std::string* error);

    const std::vector<Step>& Steps() const { return steps; }
    int64_t PassUs() const { return passUs; }
    const std::vector<std::string>& Devices() const { return devices; }  // readable, one text each

    // The message of exactly this kind and content, or null. Any thread.
    Message* Find(MessageKind kind, std::string_view content) const;

    // Ends the timing of all that is under way. Any thread.
    void ForgetTimes();

private:
    void AddCapture(const UsbCapture& capture, size_t number);
    Message* Intern(MessageKind kind, std::string content);

    std::deque<Message> messages;
    std::unordered_multimap<uint64_t, Message*> index;  // by the hash of kind and content
    std::vector<Step> steps;
    std::vector<std::string> devices;
    int64_t passUs = 0;
};

}  // namespace usbd
