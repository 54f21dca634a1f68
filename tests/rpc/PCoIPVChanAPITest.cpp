#include "rpc/PCoIPVChanAPI.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>

#include "tests/support/LogCapture.h"

namespace {

using Texts = std::vector<std::string>;

TEST(PCoIPVChanAPI, KeepsCopiesUntilItIsReset) {
    LogCapture log;
    PCoIPVChanInterface plain;
    PCoIPVChanInterfaceEx extended;
    std::memset(&plain, 0x11, sizeof plain);
    std::memset(&extended, 0x22, sizeof extended);
    const PCoIPVChanInterface noInterface{};
    const PCoIPVChanInterfaceEx noInterfaceEx{};
    auto api = std::make_unique<PCoIPVChanAPI>();
    api->Init(&plain);
    EXPECT_EQ(std::memcmp(&api->GetInterface(), &plain, 108), 0);
    EXPECT_FALSE(api->HasInterfaceEx());
    api->InitEx(7, &extended);
    EXPECT_TRUE(api->HasInterfaceEx());
    EXPECT_EQ(api->GetSessionId(), 7u);
    EXPECT_EQ(std::memcmp(&api->GetInterfaceEx(), &extended, 112), 0);
    EXPECT_EQ(std::memcmp(&api->GetInterface(), &plain, 108), 0);
    log.Clear();
    api->Reset();
    EXPECT_EQ(log.Texts(kLogInfo), Texts{"sessionID(7)"});
    EXPECT_EQ(api->GetSessionId(), static_cast<DWORD>(-1));
    EXPECT_FALSE(api->HasInterfaceEx());
    EXPECT_EQ(std::memcmp(&api->GetInterface(), &noInterface, 108), 0);
    EXPECT_EQ(std::memcmp(&api->GetInterfaceEx(), &noInterfaceEx, 112), 0);
    EXPECT_EQ(api->Reserved0(), 0);
    api.reset();
    EXPECT_EQ(log.Texts(kLogInfo), (Texts{"sessionID(7)", "sessionID(-1)"}));
}

TEST(PCoIPVChanAPI, NoInterfaceChangesNothing) {
    LogCapture log;
    PCoIPVChanInterface plain{};
    plain.bytes[107] = 1;
    PCoIPVChanAPI api;
    api.Init(&plain);
    api.Init(nullptr);
    api.InitEx(3, nullptr);
    EXPECT_EQ(api.GetInterface().bytes[107], 1);
    EXPECT_EQ(api.GetSessionId(), static_cast<DWORD>(-1));
    EXPECT_FALSE(api.HasInterfaceEx());
    EXPECT_EQ(log.Texts(kLogInfo).size(), 3u);
}

}  // namespace
