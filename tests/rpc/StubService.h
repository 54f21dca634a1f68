// The library that a server start loads: one of those made of StubService.cpp, under the test's control.
#pragma once

#include <dlfcn.h>

#include <stdexcept>
#include <string>

#include "rpc/RPCManager.h"

inline std::string gServicePath;  // what QscServicePath gives

// Starts load that library, whose exports do what Exports says, for the length of a scope. One at a time.
class StubService {
public:
    explicit StubService(const std::string& name) {
        gServicePath = BUILD_FOLDER "/lib/tests/lib" + name + ".so";
        m_library = dlopen(gServicePath.c_str(), RTLD_NOW);
        if (m_library) m_exports = static_cast<QSCService_ServerExports*>(dlsym(m_library, "StubService_exports"));
        if (!m_exports) throw std::runtime_error("no stub service " + gServicePath);
    }
    ~StubService() {
        *m_exports = {};
        dlclose(m_library);
        gServicePath.clear();
    }
    StubService(const StubService&) = delete;
    StubService& operator=(const StubService&) = delete;

    // A null one gives FALSE.
    QSCService_ServerExports& Exports() { return *m_exports; }

private:
    void* m_library;
    QSCService_ServerExports* m_exports = nullptr;
};
