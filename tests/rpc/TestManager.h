// A manager and an instance that note what their hooks hear.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "rpc/RPCManager.h"
#include "rpc/RPCPluginInstance.h"
#include "tests/support/LogCapture.h"

using Texts = std::vector<std::string>;

inline std::string WithHandle(const char* format, const void* handle) {
    char text[128];
    std::snprintf(text, sizeof text, format, handle);
    return text;
}

class TestInstance : public RPCPluginInstance {
public:
    TestInstance(RPCManager* manager, Texts* record) : RPCPluginInstance(manager, RefCountOn), heard(*record) {}
    ~TestInstance() override { heard.push_back("instance gone"); }

    void OnReady() override { heard.push_back("ready"); }
    void OnNotReady() override { heard.push_back("not ready"); }
    void OnInvoke(void* context) override {
        heard.push_back("invoke");
        EXPECT_EQ(context, &heard);
        if (onInvoke) onInvoke();
    }
    void OnDone(uint32_t requestId, void* context) override {
        heard.push_back("done " + std::to_string(requestId));
        EXPECT_EQ(context, &heard);
    }
    void OnAbort(uint32_t requestId, Bool flag, uint32_t reason) override {
        heard.push_back("abort " + std::to_string(requestId) + " " + std::to_string(flag) + " " +
                        std::to_string(reason));
    }

    std::function<void()> onInvoke;
    Texts& heard;
};

class TestManager : public RPCManager {
public:
    explicit TestManager(RefCountMode mode = RefCountOff, const char* controlName = "control")
        : RPCManager("Test", controlName, "data", "dataTcp", mode) {}
    using RPCManager::SetServerInterface;

    RPCPluginInstance* OnCreateInstance() override { return Create(); }
    RPCPluginInstance* OnCreateServerInstance(QscServerID) override { return Create(); }
    void OnDestroyInstance(RCPtr<RPCPluginInstance> instance) override {
        heard.push_back(instance == latest ? "OnDestroyInstance" : "OnDestroyInstance of another");
    }
    void OnDestroyServerInstance(QscServerID, RCPtr<RPCPluginInstance>) override {
        heard.push_back("OnDestroyServerInstance");
    }
    bool OnPluginInit() override { return Heard("OnPluginInit", false); }
    bool OnPluginExit() override { return Heard("OnPluginExit", false); }
    void OnClientInit() override { Heard(IsInitialized() ? "OnClientInit" : "OnClientInit too early", true); }
    void OnClientExit() override { Heard("OnClientExit", true); }
    bool ConfigureTcpSideChannel() override {
        m_tcpSideChannel = wantTcp;
        return Heard("tcp", tcpResult);
    }
    bool ConfigureVirtualSideChannel() override { return Heard("virtual", virtualResult); }
    bool IsSurgeSupported() const { return m_surgeSupported; }

    // The handle that the service sees, as the log tells it.
    void* FindHandle(const LogCapture& log) {
        const QSC_INTERFACE_ID unknown = QSC_MakeInterfaceId(0x77);
        QueryInterface(&unknown, nullptr);
        void* handle = nullptr;
        for (const std::string& text : log.Texts(kLogInfo)) std::sscanf(text.c_str(), "Enter - Test(0x%p)", &handle);
        return handle;
    }

    Texts TakeHeard() { return std::exchange(heard, {}); }

    bool wantTcp = false, tcpResult = true, virtualResult = true, createNothing = false;
    TestInstance* latest = nullptr;
    Texts heard;

private:
    TestInstance* Create() {
        if (createNothing) return nullptr;
        return latest = new TestInstance(this, &heard);
    }
    bool Heard(const char* hook, bool result) {
        heard.push_back(hook);
        return result;
    }
};
