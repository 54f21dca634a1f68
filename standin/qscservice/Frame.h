// The frames of the stand-in's transport. A frame is a header of 32 bytes and a row of items, each a typed value with
// its role; all numbers are little-endian, every item starts on a multiple of 8 bytes from the frame's start. The same
// items carry the parameters of messages and the arguments of the control frames.
//
//   item: kind of value u16, role u8, 0 u8, size of value u32; a named parameter: size of name u32, 0 u32, name and a
//   zero byte, padded to 8; value padded to 8: numbers as 8 bytes, a string with its zero byte, a blob as it is
#pragma once

#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

#include "standin/qscservice/Value.h"

namespace qscservice {

inline constexpr uint32_t kMaxFrameBytes = 64u << 20;
inline constexpr uint32_t kMaxItems = 4096;      // in one frame
inline constexpr uint32_t kMaxNameBytes = 1024;  // of a named parameter, without the zero
inline constexpr uint32_t kFrameMagic = 0x31435351;

enum class FrameType : uint16_t {
    Hello = 1,           // first in each direction: version, role, end, the peer's end, {command, messages received}...
    Open,                // client: attempt
    Accept,              // server: attempt, session type
    Reject,              // server: attempt
    Close,               // the channel, not the connection
    ObjectCreated,       // name, number, flags
    ObjectReady,         // name: both ends have it
    ObjectDestroyed,     // name
    SideChannelRequest,  // client: name, type, number of the attempt
    SideChannelSwitch,   // name, number of the attempt: last of the object's frames on this connection
    Post,                // object, command and request id in the header; parameters
    Request,             // the same
    Reply,               // command and request id; return values
    Abort,               // request id; reason
    MsgChannelOpened,    // name, number
    MsgChannelClosed,    // number
    MsgChannelWords,     // number; three words
    SideChannelOffer,    // server: name, type, address, number of the attempt, whether the client has asked
    SideChannelRefused,  // name, number of the attempt
    SideChannelEnd,      // last in each direction of a side connection
    Greeting,            // first on a further connection, from the client: the number that it was told
    StreamDataRequest,   // client: attempt, how many pairs it wants in all
    StreamDataOffer,     // server: attempt, address, number of the pair
    StreamDataRefused,   // attempt, number of the pair; 0: no further pair
};
inline constexpr FrameType kLastFrameType = FrameType::StreamDataRefused;

struct FrameHeader {
    uint32_t magic;
    uint32_t size;  // of the whole frame, a multiple of 8
    FrameType type;
    uint16_t zero;
    uint32_t sequence;  // 1, 2, ... in each direction of a connection
    uint32_t object;    // the sender's number of the object
    uint32_t command;
    uint32_t requestId;
    uint32_t itemCount;
};
static_assert(sizeof(FrameHeader) == 32);

enum class ItemRole : uint8_t { Param = 0, NamedParam = 1, ReturnValue = 2 };
inline constexpr size_t kItemRoles = 3;

struct Item {
    ItemRole role;
    std::string_view name;
    Value value;
};

// A checked frame inside a buffer: its items can be read without further tests.
struct FrameView {
    FrameHeader header;
    std::span<const uint8_t> items;
};

struct DecodeResult {
    enum Status { Complete, NeedMore, Malformed } status;
    size_t size;        // Complete: bytes of the frame. NeedMore: bytes needed in all before the next try
    const char* error;  // Malformed: what is wrong
};

// Looks for one frame at the start of bytes; a pure function of them. view is set on Complete and refers to bytes.
DecodeResult DecodeFrame(std::span<const uint8_t> bytes, FrameView* view);

// Reads the item at *offset and moves *offset behind it. False at the end, and on an item that breaks the format.
bool ReadItem(std::span<const uint8_t> items, size_t* offset, Item* item);

// Writing: BeginFrame leaves room for the header, AppendItem adds to the end, SealFrame writes the header. AppendItem
// gives false and changes nothing when the value is of no known kind or a limit would be passed. The sequence number is
// left 0 for the connection to fill in.
void BeginFrame(std::vector<uint8_t>* frame);
bool AppendItem(std::vector<uint8_t>* frame, ItemRole role, std::string_view name, const Value& value);
void SealFrame(std::vector<uint8_t>* frame, const FrameHeader& fields);

// A frame whose items are plain parameters, and all items of a frame as they stand.
std::vector<uint8_t> MakeFrame(FrameType type, Values values);
std::vector<Value> ItemValues(const FrameView& frame);

}  // namespace qscservice
