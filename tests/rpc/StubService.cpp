// A service library with some of the seven exports: each of the definitions STUB_... makes one, which gives FALSE.
#include "rpc/QSCServiceTypes.h"

#define STUB(name)    \
    Bool name() {     \
        return FALSE; \
    }

extern "C" {
#ifdef STUB_INIT
STUB(QSCService_ServerInit)
#endif
#ifdef STUB_INIT_LP
STUB(QSCService_ServerInitLP)
#endif
#ifdef STUB_EXIT
STUB(QSCService_ServerExit)
#endif
#ifdef STUB_INIT2
STUB(QSCService_ServerInit2)
#endif
#ifdef STUB_EXIT2
STUB(QSCService_ServerExit2)
#endif
#ifdef STUB_MULTI_INIT
STUB(QSCService_MultiServerInit)
#endif
#ifdef STUB_MULTI_EXIT
STUB(QSCService_MultiServerExit)
#endif
}
