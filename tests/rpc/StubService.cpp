// A service library with some of the seven exports: each of the definitions STUB_... makes one. It does what the test
// has put into StubService_exports, and gives FALSE without that.
#include "rpc/RPCManager.h"

extern "C" {

QSCService_ServerExports StubService_exports{};

}  // extern "C"

namespace {

template <typename... Arguments>
[[maybe_unused]] Bool Forward(Bool (*function)(Arguments...), Arguments... arguments) {
    return function ? function(arguments...) : FALSE;
}

}  // namespace

extern "C" {

#ifdef STUB_INIT
Bool QSCService_ServerInit(const char* name, QSC_SERVICE_QUERY_INTERFACE* query, void** hChannel) {
    return Forward(StubService_exports.ServerInit, name, query, hChannel);
}
#endif
#ifdef STUB_INIT_LP
Bool QSCService_ServerInitLP(const char* name, uintptr_t zero, QSC_SERVICE_QUERY_INTERFACE* query, void** hChannel) {
    return Forward(StubService_exports.ServerInitLP, name, zero, query, hChannel);
}
#endif
#ifdef STUB_EXIT
Bool QSCService_ServerExit() {
    return Forward(StubService_exports.ServerExit);
}
#endif
#ifdef STUB_INIT2
Bool QSCService_ServerInit2(DWORD sessionId, const char* name, QSC_SERVICE_QUERY_INTERFACE* query, void** hChannel) {
    return Forward(StubService_exports.ServerInit2, sessionId, name, query, hChannel);
}
#endif
#ifdef STUB_EXIT2
Bool QSCService_ServerExit2(DWORD sessionId) {
    return Forward(StubService_exports.ServerExit2, sessionId);
}
#endif
#ifdef STUB_MULTI_INIT
Bool QSCService_MultiServerInit(DWORD sessionId, const char* name, const char* empty,
                                QSC_SERVICE_QUERY_INTERFACE* query, void** hMultiServer) {
    return Forward(StubService_exports.MultiServerInit, sessionId, name, empty, query, hMultiServer);
}
#endif
#ifdef STUB_MULTI_EXIT
Bool QSCService_MultiServerExit(void* hMultiServer, void* reserved) {
    return Forward(StubService_exports.MultiServerExit, hMultiServer, reserved);
}
#endif

}  // extern "C"
