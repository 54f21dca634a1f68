// Helpers around the session that the process serves.
#pragma once

#include "rpc/QSCServiceTypes.h"

class SessionUtils {
public:
    // The type of the session whose channel came up last; QSC_SESSION_NONE at the start and once a channel has gone.
    static QSCService_SessionType GetSessionType();
    static void SetSessionType(QSCService_SessionType type);

    // For log lines. An unknown value is written into a buffer of the calling thread that the next one overwrites.
    static const char* GetSessionTypeText(QSCService_SessionType type);
};
