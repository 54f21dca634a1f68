#include "rpc/SessionUtils.h"

#include <atomic>
#include <cstdio>
#include <map>
#include <utility>

#include "logging/Log.h"
#include "runtime/KxMutex.h"

namespace {

std::atomic<QSCService_SessionType> sessionType{QSC_SESSION_NONE};  // a lone word: relaxed

using SidPair = std::pair<uint32_t, void*>;

struct SidBook {
    KxMutex mutex;  // guards both maps
    std::map<SidPair, uint32_t> ids GUARDED_BY(mutex);
    std::map<uint32_t, SidPair> pairs GUARDED_BY(mutex);
    std::atomic<uint32_t> counter{0};
};

// Made on first use and never destroyed, as all registries.
SidBook& Sids() {
    static SidBook& book = *new SidBook;
    return book;
}

}  // namespace

QSCService_SessionType SessionUtils::GetSessionType() {
    return sessionType.load(std::memory_order_relaxed);
}

void SessionUtils::SetSessionType(QSCService_SessionType type) {
    sessionType.store(type, std::memory_order_relaxed);
}

const char* SessionUtils::GetSessionTypeText(QSCService_SessionType type) {
    switch (type) {
        case QSC_SESSION_NONE:
            return "NONE SESSION";
        case QSC_SESSION_PCOIP:
            return "PCOIP SESSION";
        case QSC_SESSION_STORM:
            return "STORM SESSION";
    }
    thread_local char text[32];
    std::snprintf(text, sizeof text, "unknown %d", static_cast<int>(type));
    return text;
}

uint32_t SessionUtils::GetUniqueSid(uint32_t number, void* pointer) {
    SidBook& book = Sids();
    KxMutexGuard guard(book.mutex);
    uint32_t& sid = book.ids[{number, pointer}];
    if (sid == 0) {
        do {
            sid = ++book.counter;
        } while (sid == 0 || !book.pairs.try_emplace(sid, number, pointer).second);
    }
    return sid;
}

bool SessionUtils::FindUniqueSid(DWORD sid, uint32_t* number, void** pointer) {
    SidBook& book = Sids();
    KxMutexGuard guard(book.mutex);
    const auto found = book.pairs.find(sid);
    if (found == book.pairs.end()) return false;
    if (number) *number = found->second.first;
    if (pointer) *pointer = found->second.second;
    return true;
}

bool SessionUtils::RemoveUniqueSid(DWORD sid) {
    SidBook& book = Sids();
    KxMutexGuard guard(book.mutex);
    const auto found = book.pairs.find(sid);
    if (found == book.pairs.end()) return false;
    const auto peer = book.ids.find(found->second);
    book.pairs.erase(found);
    if (peer == book.ids.end()) {
        LOG(Warn, "Internal SID map missing peer!\n");
        return false;
    }
    if (peer->second != sid) {
        LOG(Warn, "Internal SID map out-of-sync!\n");
        return false;
    }
    book.ids.erase(peer);
    return true;
}
