// A plug-in that does nothing, and of which one entry point at a time can be made to fail.
#include <cstring>
#include <string>

#include "rpc/QSCServiceTables.h"

namespace {

std::string gFailing;

// FALSE once for the entry point that is to fail.
Bool Result(const char* entryPoint) {
    if (gFailing != entryPoint) return TRUE;
    gFailing.clear();
    return FALSE;
}

}  // namespace

extern "C" {

void HostedPlugin_Fail(const char* entryPoint) {
    gFailing = entryPoint;
}

Bool QSCService_PluginSetStartupArgs(const char*) {
    return Result("SetStartupArgs");
}

// In a buffer of 100 bytes or more the token has no end.
Bool QSCService_PluginGetTokenName(char* buffer, int size) {
    std::memset(buffer, '!', static_cast<size_t>(size));
    if (size < 100) buffer[std::string("Hosted").copy(buffer, static_cast<size_t>(size) - 1)] = '\0';
    return Result("GetTokenName");
}

Bool QSCService_PluginInit(QSC_SERVICE_QUERY_INTERFACE) {
    return Result("Init");
}

Bool QSCService_PluginExit() {
    return Result("Exit");
}

Bool QSCService_PluginCreateInstance(void*, void** instance) {
    *instance = &gFailing;
    return Result("CreateInstance");
}

Bool QSCService_PluginDestroyInstance(void* instance) {
    return instance == &gFailing ? Result("DestroyInstance") : FALSE;
}

}  // extern "C"
