// Which service library a start accepts, and what it says of one that it doesn't.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "rpc/QscServicePath.h"
#include "tests/rpc/StubService.h"
#include "tests/rpc/TestManager.h"

namespace {

class LoadService : public testing::Test {
protected:
    ~LoadService() override { gServicePath.clear(); }
    LogCapture log{kLogInfo};
};

TEST_F(LoadService, PairsOfExportsHaveToMatch) {
    const std::string initFailed = "LoadQscService() failed.\n";
    struct Case {
        const char* library;
        int start;  // of kStarts below
        Texts errors;
    };
    const auto unmatched = [&](const char* name) {
        return Texts{std::string("qscService does not contain matching ") + name + " function\n", initFailed};
    };
    const Case cases[] = {
        {"stub_no_exit", 0, unmatched("ServerExit")},
        {"stub_no_exit2", 0, unmatched("ServerExit2")},
        {"stub_no_multi_exit", 0, unmatched("MultiServerExit")},
        {"stub_no_exit2", 2, unmatched("ServerExit2")},
        {"stub_all", 0, {"QSCService_ServerInit2() failed\n"}},
        {"stub_all", 1, {"QSCService_ServerInit() failed\n"}},
        {"stub_all", 2, {"QSCService_MultiServerInit() failed\n"}},
        {"stub_exits_only", 0, {"QSCService_ServerInit2() not available\n"}},
        {"stub_exits_only", 1, {"QSCService_ServerInit() not available\n"}},
        {"stub_exits_only", 2, {"QSCService_MultiServerInit() not available\n"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.library) + " start " + std::to_string(c.start));
        gServicePath = std::string(BUILD_FOLDER "/lib/tests/lib") + c.library + ".so";
        log.Clear();
        const RCPtr<TestManager> manager(new TestManager(RefCountOn));
        Texts heard;
        const RCPtr<RPCPluginInstance> instance(new TestInstance(manager.Get(), &heard));
        // Twice: a failure leaves the manager ready for another try.
        for (int time = 0; time < 2; ++time) {
            const bool started = c.start == 0 ? manager->ServerInit(instance.Get(), 0, true)
                                 : c.start == 1
                                     ? manager->ServerInitForSession(static_cast<DWORD>(-1), instance.Get(), 0)
                                     : manager->MultiServerInit(1);
            EXPECT_FALSE(started);
            EXPECT_EQ(log.Texts(kLogError), c.errors);
            const bool loads = time == 0 || c.errors.back() == initFailed;  // once for all, when it is good
            EXPECT_EQ(log.Count("Load qscservice from " + gServicePath + " \n"), loads ? 1u : 0u);
            log.Clear();
        }
    }
}

TEST_F(LoadService, APathWithoutALibraryIsNamed) {
    gServicePath = "/nowhere/libqscservice.so";
    const RCPtr<TestManager> manager(new TestManager(RefCountOn));
    EXPECT_FALSE(manager->MultiServerInit(1));
    const Texts errors = log.Texts(kLogError);
    ASSERT_EQ(errors.size(), 2u);
    EXPECT_TRUE(errors[0].starts_with("Failed to load \"/nowhere/libqscservice.so\": 0x")) << errors[0];
    EXPECT_EQ(errors[1], "LoadQscService() failed.\n");
    EXPECT_FALSE(manager->ServerInit(nullptr, 0, false));
    EXPECT_TRUE(log.Has(kLogError, "rpcPlugin == NULL\n"));
}

}  // namespace

// In place of the one of the programs.
const char* QscServicePath() {
    return gServicePath.c_str();
}
