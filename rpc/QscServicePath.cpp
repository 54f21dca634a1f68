#include "rpc/QscServicePath.h"

// The build gives another one to the programs and tests that bring a service of their own.
#ifndef QSC_SERVICE_PATH
#define QSC_SERVICE_PATH "/usr/lib/corvex/qagent/QVC/vchan_plugins/libqscservice.so"
#endif

const char* QscServicePath() {
    return QSC_SERVICE_PATH;
}
