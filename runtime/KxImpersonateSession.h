// Acting on behalf of a user session. This platform has no such sessions: everything is refused.
#pragma once

#include <cstdint>

#include "runtime/RCObject.h"
#include "runtime/Types.h"
#include "runtime/XString.h"

class KxImpersonateSession : public RCObject {
public:
    // Gets hold of the session sessionId.
    bool Begin() { return false; }

    // Makes the calling thread act for the session, and itself again.
    bool Start() { return false; }
    bool Stop() { return false; }

    // Lets go of the session.
    void Clear() {}

    static bool IsValidSession(DWORD) { return false; }

    int32_t sessionId = -1;  // -1 when none
    uintptr_t impersonationToken = 0;
    bool impersonating = false;
    StringUtils::XString userName;
};
