#include "plugin/UsbOutboundMsgInfoQueue.h"

#include <algorithm>

void UsbOutboundMsgInfoQueue::AddMsgInfo(const char* msgId, Usbd_AsyncFinalRespCb callback, void* context) {
    auto record = std::make_unique<UsbOutboundMsgInfo>(UsbOutboundMsgInfo{msgId ? msgId : "", callback, context});
    KxMutexGuard guard(lock);
    records.push_back(std::move(record));
}

UsbOutboundMsgInfo* UsbOutboundMsgInfoQueue::GetMsgInfo(const std::string& msgId) {
    KxMutexGuard guard(lock);
    const auto found = Find(msgId);
    return found == records.end() ? nullptr : found->get();
}

bool UsbOutboundMsgInfoQueue::TakeMsgInfo(const std::string& msgId, Usbd_AsyncFinalRespCb* callback, void** context) {
    KxMutexGuard guard(lock);
    const auto found = Find(msgId);
    if (found == records.end()) return false;
    *callback = (*found)->callback;
    *context = (*found)->context;
    records.erase(found);
    return true;
}

bool UsbOutboundMsgInfoQueue::RemoveMsgInfo(const std::string& msgId) {
    KxMutexGuard guard(lock);
    const auto found = Find(msgId);
    if (found == records.end()) return false;
    records.erase(found);
    return true;
}

void UsbOutboundMsgInfoQueue::Clear() {
    KxMutexGuard guard(lock);
    while (!records.empty()) records.pop_front();
}

UsbOutboundMsgInfoQueue::Records::iterator UsbOutboundMsgInfoQueue::Find(const std::string& msgId) {
    return std::find_if(records.begin(), records.end(), [&](const auto& record) { return record->msgId == msgId; });
}
