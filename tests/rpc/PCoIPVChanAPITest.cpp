#include "rpc/PCoIPVChanAPI.h"

#include <gtest/gtest.h>

#include <cstring>

#include "tests/support/LogCapture.h"

namespace {

TEST(PCoIPVChanAPI, KeepsCopiesUntilItIsReset) {
    LogCapture log;
    PCoIPVChanInterface plain;
    PCoIPVChanInterfaceEx extended;
    std::memset(&plain, 0x11, sizeof plain);
    std::memset(&extended, 0x22, sizeof extended);
    {
        PCoIPVChanAPI api;
        api.InitEx(3, nullptr);
        EXPECT_FALSE(api.HasInterfaceEx());
        api.Init(&plain);
        api.InitEx(7, &extended);
        api.Init(nullptr);
        EXPECT_TRUE(api.HasInterfaceEx());
        EXPECT_EQ(api.GetSessionId(), 7u);
        EXPECT_EQ(std::memcmp(&api.GetInterface(), &plain, 108), 0);
        EXPECT_EQ(std::memcmp(&api.GetInterfaceEx(), &extended, 112), 0);
        log.Clear();
        api.Reset();
        EXPECT_EQ(log.Texts(kLogInfo), std::vector<std::string>{"sessionID(7)"});
        EXPECT_FALSE(api.HasInterfaceEx());
        plain = {};
        extended = {};
        EXPECT_EQ(std::memcmp(&api.GetInterface(), &plain, 108), 0);
        EXPECT_EQ(std::memcmp(&api.GetInterfaceEx(), &extended, 112), 0);
    }
    EXPECT_EQ(log.Texts(kLogInfo), (std::vector<std::string>{"sessionID(7)", "sessionID(-1)"}));
}

}  // namespace
