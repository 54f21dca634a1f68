#include "rpc/SessionUtils.h"

#include <atomic>
#include <cstdio>

namespace {

std::atomic<QSCService_SessionType> sessionType{QSC_SESSION_NONE};  // a lone word: relaxed

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
