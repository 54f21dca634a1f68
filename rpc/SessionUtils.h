// Helpers around the session that the process serves.
#pragma once

#include <cstdint>

#include "rpc/QSCServiceTypes.h"

class SessionUtils {
public:
    // The type of the session whose channel came up last; QSC_SESSION_NONE at the start and once a channel has gone.
    static QSCService_SessionType GetSessionType();
    static void SetSessionType(QSCService_SessionType type);

    // For log lines. An unknown value is written into a buffer of the calling thread that the next one overwrites.
    static const char* GetSessionTypeText(QSCService_SessionType type);

    // Ids of the process for pairs of a number and a pointer, which is never followed. A pair keeps its id, which is
    // never 0 nor that of another pair, until that is removed.
    static uint32_t GetUniqueSid(uint32_t number, void* pointer);
    // The pair of an id; false, with nothing stored, for one that is unknown. Either place may be null.
    static bool FindUniqueSid(DWORD sid, uint32_t* number, void** pointer);
    // False for an unknown id. Also false, after a WARN line, if the two sides of the book don't agree; the id is gone
    // then.
    static bool RemoveUniqueSid(DWORD sid);
};
