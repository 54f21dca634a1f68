#include "standin/usbd/MessageTable.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <map>

#include "standin/usbd/UsbdReplay.h"

namespace usbd {
namespace {

constexpr size_t kHashedBytes = 128;

// The head tells nearly all messages apart: the usbmon header has the transfer's id and time. The rest is compared
// anyway.
uint64_t HashHead(MessageKind kind, std::string_view content) {
    constexpr uint64_t kFactor = 0x9E3779B97F4A7C15ull;
    uint64_t hash = (content.size() * 4 + static_cast<uint64_t>(kind)) * kFactor;
    for (size_t at = 0; at < std::min(content.size(), kHashedBytes); at += sizeof(uint64_t)) {
        uint64_t word = 0;
        memcpy(&word, content.data() + at, std::min(sizeof(word), content.size() - at));
        hash = (hash ^ word) * kFactor;
        hash ^= hash >> 32;
    }
    return hash;
}

// splitmix64 (Steele, Lea and Flood 2014), seeded by the record's number.
void FillMissing(std::string& content, size_t from, size_t recordNumber) {
    uint64_t state = recordNumber;
    for (size_t at = from; at < content.size(); at += sizeof(uint64_t)) {
        uint64_t word = (state += 0x9E3779B97F4A7C15ull);
        word = (word ^ (word >> 30)) * 0xBF58476D1CE4E5B9ull;
        word = (word ^ (word >> 27)) * 0x94D049BB133111EBull;
        word ^= word >> 31;
        memcpy(content.data() + at, &word, std::min(sizeof(word), content.size() - at));
    }
}

std::string DataMessage(const UsbRecord& record, size_t recordNumber) {
    std::string content(kUsbmonHeaderSize + record.FullPayloadSize(), '\0');
    memcpy(content.data(), record.header.data(), kUsbmonHeaderSize);
    const size_t captured = record.payload.size();
    if (captured > 0) memcpy(content.data() + kUsbmonHeaderSize, record.payload.data(), captured);
    FillMissing(content, kUsbmonHeaderSize + captured, recordNumber);
    return content;
}

std::string Hex(std::span<const uint8_t> bytes) {
    constexpr char kDigits[] = "0123456789abcdef";
    if (bytes.empty()) return "-";
    std::string text;
    text.reserve(bytes.size() * 2);
    for (const uint8_t byte : bytes) {
        text += kDigits[byte >> 4];
        text += kDigits[byte & 15];
    }
    return text;
}

std::string ControlText(const UsbRecord& record, size_t recordNumber) {
    char head[128];
    snprintf(head, sizeof(head), "record %zu event %c bus %u device %u endpoint %02x status %d length %u", recordNumber,
             record.event, record.bus, record.device, record.endpoint, record.status, record.length);
    const std::span<const uint8_t> setup = record.setup;
    return std::string(head) + " setup " + (record.HasSetup() ? Hex(setup) : "-") + " data " + Hex(record.payload);
}

MessageKind KindOf(const UsbRecord& record) {
    if (record.type == UsbTransferType::kControl) return MessageKind::kPost;
    return record.type == UsbTransferType::kInterrupt ? MessageKind::kHid : MessageKind::kFast;
}

uint64_t DataBytes(const UsbCapture& capture) {
    uint64_t bytes = 0;
    for (const UsbRecord& record : capture.Records()) {
        if (KindOf(record) != MessageKind::kPost) bytes += kUsbmonHeaderSize + record.FullPayloadSize();
    }
    return bytes;
}

}  // namespace

bool Message::TakeBack() {
    uint32_t number = outstanding.load(std::memory_order_relaxed);
    while (number > 0 && !outstanding.compare_exchange_weak(number, number - 1, std::memory_order_relaxed)) {
    }
    return number > 0;
}

std::unique_ptr<MessageTable> MessageTable::Make(const std::vector<UsbCapture>& captures, std::string* error) {
    uint64_t bytes = 0;
    for (const UsbCapture& capture : captures) {
        bytes += DataBytes(capture);
        if (bytes <= kMaxUsbReplayBytes) continue;
        if (error) *error = capture.Name() + ": messages exceed " + std::to_string(kMaxUsbReplayBytes) + " bytes";
        return nullptr;
    }
    auto table = std::make_unique<MessageTable>();
    for (size_t i = 0; i < captures.size(); ++i) table->AddCapture(captures[i], i + 1);
    return table;
}

void MessageTable::AddCapture(const UsbCapture& capture, size_t number) {
    std::map<std::pair<uint16_t, uint8_t>, int> known;
    const int64_t startUs = passUs;
    size_t recordNumber = 0;
    for (const UsbRecord& record : capture.Records()) {
        ++recordNumber;
        const MessageKind kind = KindOf(record);
        Message* message = Intern(
            kind, kind == MessageKind::kPost ? ControlText(record, recordNumber) : DataMessage(record, recordNumber));
        int device = -1;
        if (known.try_emplace({record.bus, record.device}, 0).second) {
            device = static_cast<int>(devices.size());
            devices.push_back("capture " + std::to_string(number) + " bus " + std::to_string(record.bus) + " device " +
                              std::to_string(record.device));
        }
        passUs = std::max(passUs, startUs + record.timestampUs - capture.Records().front().timestampUs);
        steps.push_back({message, passUs, device});
    }
}

Message* MessageTable::Intern(MessageKind kind, std::string content) {
    if (Message* known = Find(kind, content)) return known;
    const uint64_t hash = HashHead(kind, content);
    Message* message = &messages.emplace_back(kind, std::move(content));
    index.emplace(hash, message);
    return message;
}

Message* MessageTable::Find(MessageKind kind, std::string_view content) const {
    auto [from, to] = index.equal_range(HashHead(kind, content));
    for (; from != to; ++from) {
        if (from->second->kind == kind && from->second->content == content) return from->second;
    }
    return nullptr;
}

void MessageTable::ForgetTimes() {
    for (Message& message : messages) message.sentAtNs.store(0, std::memory_order_relaxed);
}

}  // namespace usbd
