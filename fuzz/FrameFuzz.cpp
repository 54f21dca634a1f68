// The transport over arbitrary bytes from the peer, first one frame by itself, then a server's whole channel behind a
// socket. A frame that is accepted must be whole: each item inside the frame's own bytes, as many as its header tells,
// and the same again when it is written anew. The channel must survive whatever comes, and hang up cleanly. The first
// byte of the input chooses how much the channel gets for granted: nothing, a hello and an open channel, or sequence
// numbers as well.
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <vector>

#include "standin/qscservice/MessageContext.h"
#include "standin/qscservice/ServiceEnd.h"
#include "standin/qscservice/ServiceTables.h"

using namespace qscservice;

namespace {

using Bytes = std::vector<uint8_t>;

void Check(bool holds) {
    if (!holds) abort();
}

void CheckFrame(std::span<const uint8_t> bytes) {
    FrameView view;
    const DecodeResult result = DecodeFrame(bytes, &view);
    if (result.status == DecodeResult::Malformed) return Check(result.error && *result.error);
    if (result.status == DecodeResult::NeedMore) return Check(result.size > bytes.size());
    Check(result.size <= bytes.size() && view.items.size() + sizeof(FrameHeader) == result.size);

    Bytes copy;
    BeginFrame(&copy);
    uint32_t count = 0;
    size_t offset = 0;
    for (Item item; ReadItem(view.items, &offset, &item); ++count) {
        Check(AppendItem(&copy, item.role, item.name, item.value));
    }
    Check(count == view.header.itemCount && offset == view.items.size());
    SealFrame(&copy, view.header);
    Check(copy.size() == result.size);
    FrameView again;
    Check(DecodeFrame(copy, &again).status == DecodeResult::Complete);
    const std::vector<Value> before = ItemValues(view);
    const std::vector<Value> after = ItemValues(again);
    Check(before == after);
}

void Number(Bytes* frame, uint32_t sequence) {
    FrameHeader header;
    std::memcpy(&header, frame->data(), sizeof header);
    header.sequence = sequence;
    std::memcpy(frame->data(), &header, sizeof header);
}

// What the peer of an open channel with two connected objects has sent.
Bytes Greeting(uint32_t* sequence) {
    Bytes all;
    for (Bytes frame : {MakeFrame(FrameType::Hello, {Value(1u), Value(0u), Value(uint64_t{77}), Value(uint64_t{0})}),
                        MakeFrame(FrameType::Open, {Value(1u)}),
                        MakeFrame(FrameType::ObjectCreated, {Value("UsbRedirControlObj"), Value(1u), Value(0x0Du)}),
                        MakeFrame(FrameType::ObjectCreated, {Value("UsbRedirDataObj"), Value(2u), Value(0x0Du)})}) {
        Number(&frame, ++*sequence);
        all.insert(all.end(), frame.begin(), frame.end());
    }
    return all;
}

// Gives each frame of the input its due magic, length and sequence number, so that what is behind them is reached.
void Repair(std::span<uint8_t> bytes, uint32_t sequence) {
    while (bytes.size() >= sizeof(FrameHeader)) {
        FrameHeader header;
        std::memcpy(&header, bytes.data(), sizeof header);
        header.magic = kFrameMagic;
        header.zero = 0;
        header.sequence = ++sequence;
        const size_t longest = bytes.size() / 8 * 8;
        if (header.size < sizeof header || header.size > longest || header.size % 8 != 0) {
            header.size = static_cast<uint32_t>(longest);
        }
        std::memcpy(bytes.data(), &header, sizeof header);
        bytes = bytes.subspan(header.size);
    }
}

void FeedChannel(uint8_t choice, std::span<const uint8_t> input) {
    uint32_t sequence = 0;
    Bytes bytes;
    if (choice % 3 != 0) bytes = Greeting(&sequence);
    const size_t greeted = bytes.size();
    bytes.insert(bytes.end(), input.begin(), input.end());
    if (choice % 3 == 2) Repair(std::span(bytes).subspan(greeted), sequence);

    int fds[2];
    Check(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) == 0);
    const Fd peer(fds[0]);
    ServiceEnd* sender = nullptr;
    ServiceEnd end(
        {.onReady = [&] { sender->Request(9, {Value("asked")}); },
         .onNotReady = {},
         .onMessage =
             [&](InboundMessage& message) {
                 for (int i = 0; i < message.ParamCount(); ++i) message.AddReturnValue(*message.Param(i));
                 if (message.Command() % 2 == 1) message.Defer();
             },
         .onDone = [](uint32_t, InboundMessage& answer) { answer.ReturnValue(answer.ReturnValueCount() - 1); },
         .onAbort = {}});
    sender = &end;
    std::string error;
    Check(end.Channel().Attach(fds[1], &error));
    for (size_t sent = 0; sent < bytes.size();) {
        const ssize_t took = send(peer.Get(), bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (took <= 0) break;  // it has hung up
        sent += static_cast<size_t>(took);
    }
    shutdown(peer.Get(), SHUT_WR);
    uint8_t answers[4096];
    while (recv(peer.Get(), answers, sizeof answers, 0) > 0) {
    }
    end.Channel().Close();
    Check(end.Channel().OpenRequests() == 0);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    SetErrorHandler([](std::string_view line) { Check(!line.empty()); });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    const std::span<const uint8_t> input(data + 1, size - 1);
    CheckFrame(input);
    FeedChannel(data[0], input);
    Check(ContextTable::Live() == 0);
    return 0;
}
