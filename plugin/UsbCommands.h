// The messages between this plug-in and the USB plug-in of the agent: one class for each command number, which writes
// the outgoing form of its message and reads the incoming one. All of them travel on the data channel object.
//
//   command                    to the agent                              from the agent
//   0 post                     type string, content blob                 type string, content blob
//   1 fast post                content blob                              queue id u32, header length u64, trailer u64,
//                                                                        content blob
//   2 asynchronous message     type string, id string, content blob      the response: id string, content blob
//   3 fast HID optimisation    content blob                              -
//
// Contents are not interpreted; only the type string of a post from the agent decides what is done with it.
#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include "rpc/QSCServiceCommand.h"

inline constexpr uint32_t kPostMsgCommand = 0;
inline constexpr uint32_t kPostMsgFastCommand = 1;
inline constexpr uint32_t kSendAsyncMsgCommand = 2;
inline constexpr uint32_t kPostHIDOptMsgFastCommand = 3;

// What a message type string asks for.
enum class UsbOperationType {
    None = 0,
    UnplugDevice = 1,
    PlugInDevice = 2,
    IsUsbAvailable = 3,
    ClientStartup = 4,
    UemIsReady = 5,
    Filter = 6,    // device filtering is enabled, for the embedding client and the daemon
    UnFilter = 7,  // it is disabled
    HIDOptOperation = 8,
};

enum class FilterMsgType { None = 0, Filter = 1, UnFilter = 2 };

// Wraps one message for the length of its handling, on one thread. The message belongs to the caller. The four
// operations log and refuse where a class has no such form.
class UsbQSCServiceCommand : public QSCServiceCommand {
public:
    using QSCServiceCommand::QSCServiceCommand;

    // Writes the fields into the message. Returns the message, or null after an ERROR line (INFO where a class has no
    // such form); parameters written so far stay in it.
    virtual void* CreateRequest();

    // Reads the message and does what it asks for. False after an ERROR line; nobody was called then.
    virtual bool ParseRequest();

    virtual bool CreateResponse();

    // Reads the return values of a completed message and hands them on. False after an ERROR line.
    virtual bool ParseResponse();

    // The meaning of msgType, in any case of letters; None for null.
    virtual UsbOperationType GetOperationType(const char* msgType);

    void* userData = nullptr;  // for ParseResponse: the UsbOutboundMsgInfoQueue of the instance
};

class UsbPostMsgClientCommand : public UsbQSCServiceCommand {
public:
    UsbPostMsgClientCommand(const QSCRPC_ChannelContextInterface* channelContext,
                            const QSCRPC_VariantInterface* variant, void* hContext);

    void* CreateRequest() override;
    bool ParseRequest() override;

    // None after an ERROR line for anything but the two filter types.
    FilterMsgType GetFilterMsgType(const char* msgType);

    std::string msgType;
    std::string msgData;
    size_t msgSize = 0;  // bytes of msgData to send, at most its length; fits 32 bits
};

class UsbPostMsgFastClientCommand : public UsbQSCServiceCommand {
public:
    UsbPostMsgFastClientCommand(const QSCRPC_ChannelContextInterface* channelContext,
                                const QSCRPC_VariantInterface* variant, void* hContext);

    void* CreateRequest() override;

    // Hands the blob's own bytes to the daemon: no copy is made.
    bool ParseRequest() override;

    std::string msgData;
    size_t msgSize = 0;  // as above
};

class UsbSendAsyncMsgClientCommand : public UsbQSCServiceCommand {
public:
    UsbSendAsyncMsgClientCommand(const QSCRPC_ChannelContextInterface* channelContext,
                                 const QSCRPC_VariantInterface* variant, void* hContext);

    void* CreateRequest() override;

    // Takes the record of the response's id out of the queue in userData and gives the response to its callback, with
    // no lock held. A malformed response leaves the record in the queue.
    bool ParseResponse() override;

    std::string msgType;
    std::string msgId;
    std::string msgData;
    size_t msgSize = 0;  // as above
};

class UsbClientCommandFactory {
public:
    // A new command for that number, owned by the caller; null after an ERROR line for a number that has no class (3 is
    // one). The tables must outlive it.
    UsbQSCServiceCommand* GetUsbCommand(uint32_t command, const QSCRPC_ChannelContextInterface* channelContext,
                                        const QSCRPC_VariantInterface* variant, void* message);
};
