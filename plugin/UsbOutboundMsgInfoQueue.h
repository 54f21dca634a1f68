// The asynchronous messages of one instance that await their response, with the callback that the daemon wants called.
#pragma once

#include <deque>
#include <memory>
#include <string>

#include "plugin/Usbd.h"
#include "runtime/KxMutex.h"
#include "runtime/ThreadAnnotations.h"

struct UsbOutboundMsgInfo {
    std::string msgId;
    Usbd_AsyncFinalRespCb callback;
    void* context;  // the daemon's word for the callback
};

// A queue of records, oldest first. Ids compare by length and bytes and need not be unique: of equal ids the oldest
// record is meant. No callback is ever called here. Safe on any thread.
class UsbOutboundMsgInfoQueue {
public:
    UsbOutboundMsgInfoQueue() = default;
    UsbOutboundMsgInfoQueue(const UsbOutboundMsgInfoQueue&) = delete;
    UsbOutboundMsgInfoQueue& operator=(const UsbOutboundMsgInfoQueue&) = delete;
    virtual ~UsbOutboundMsgInfoQueue() { Clear(); }

    // Appends a record. A null id counts as empty.
    void AddMsgInfo(const char* msgId, Usbd_AsyncFinalRespCb callback, void* context);

    // The record with this id, or null. It stays in the queue and is valid until it is removed, which another thread
    // may do at any time: where that can be, use TakeMsgInfo.
    UsbOutboundMsgInfo* GetMsgInfo(const std::string& msgId);

    // Copies callback and context of the record with this id and removes the record, in one step. False, nothing
    // written, if there is none.
    bool TakeMsgInfo(const std::string& msgId, Usbd_AsyncFinalRespCb* callback, void** context);

    // Removes the record with this id. False if there is none.
    bool RemoveMsgInfo(const std::string& msgId);

    // Removes all records, oldest first.
    void Clear();

private:
    using Records = std::deque<std::unique_ptr<UsbOutboundMsgInfo>>;

    Records::iterator Find(const std::string& msgId) REQUIRES(lock);

    KxMutex lock{false, ""};  // guards records
    Records records GUARDED_BY(lock);
};
