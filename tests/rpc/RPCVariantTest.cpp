#include "rpc/RPCVariant.h"

#include "tests/rpc/ChannelService.h"

namespace {

using Names = ChannelService::Names;

class RPCVariantTest : public testing::Test {
protected:
    RPCVariantTest() {
        const QSC_SERVICE_QUERY_INTERFACE query = service.Query();
        EXPECT_TRUE(manager->Init(false, &query));
    }

    LogCapture log;
    ChannelService service;
    RCPtr<HookManager> manager{new HookManager(RefCountOn)};
    RCPtr<HookInstance> instance{new HookInstance(manager.Get())};
};

TEST_F(RPCVariantTest, IsInitialisedAndClearedOnceWithItsScope) {
    {
        RPCVariant byInstance(instance.Get());
        EXPECT_EQ(service.TakeCalls(), Names{"VariantInit"});
        EXPECT_EQ(static_cast<void*>(static_cast<QSC_RPC_VARIANT*>(&byInstance)), &byInstance);
    }
    EXPECT_EQ(service.TakeCalls(), Names{"VariantClear"});
    { const RPCVariant byManager{RCPtr<RPCManager>(manager.Get())}; }
    EXPECT_EQ(service.TakeCalls(), (Names{"VariantInit", "VariantClear"}));
}

TEST_F(RPCVariantTest, HoldsInstanceAndManager) {
    {
        RPCVariant variant(instance.Get());
        instance = nullptr;
        manager = nullptr;
        for (const std::string& line : log.Texts(kLogInfo)) EXPECT_EQ(line.find("destroyed"), std::string::npos);
    }
    EXPECT_EQ(service.TakeCalls(), (Names{"VariantInit", "VariantClear"}));
    EXPECT_FALSE(log.Texts(kLogInfo).empty());
    EXPECT_NE(log.Texts(kLogInfo).back().find("removed"), std::string::npos);
}

TEST_F(RPCVariantTest, CallsNothingWithoutAManager) {
    manager = nullptr;
    for (HookInstance* const held : {instance.Get(), static_cast<HookInstance*>(nullptr)}) {
        const RPCVariant variant(held);
        EXPECT_EQ(variant.vt, 0);
    }
    EXPECT_EQ(service.TakeCalls(), Names{});
}

}  // namespace
