#include "rpc/QSCServiceText.h"

#include <gtest/gtest.h>

#include <thread>

namespace {

TEST(QSCServiceText, NamesEveryStateAndNumbersTheRest) {
    const std::pair<int32_t, const char*> links[] = {{-1, "UNINITIALIZED"}, {0, "DISCONNECTED"}, {1, "PENDING"},
                                                     {2, "CONNECTED"},      {3, "unknown3"},     {-2, "unknown-2"}};
    for (const auto& [value, text] : links) {
        EXPECT_STREQ(QSCService_StateText(static_cast<QSCService_ConnectionState>(value)), text);
        EXPECT_STREQ(QSCService_StateText(static_cast<QSCService_ChannelState>(value)), text);
    }
    const std::pair<int32_t, const char*> objects[] = {{-1, "UNINITIALIZED"},
                                                       {0, "DISCONNECTED"},
                                                       {1, "PENDING"},
                                                       {2, "CONNECTED"},
                                                       {3, "SIDE_CHANNEL_PENDING"},
                                                       {4, "SIDE_CHANNEL_CONNECTED"},
                                                       {5, "PENDING_AND_PEER_OBJ_CREATED"},
                                                       {6, "unknown[6]"},
                                                       {INT32_MIN, "unknown[-2147483648]"}};
    for (const auto& [value, text] : objects) {
        EXPECT_STREQ(QSCService_StateText(static_cast<QSCRPC_ObjectState>(value)), text);
    }
    EXPECT_STREQ(RPCChannelTypeText(RPCChannelType::Control), "CONTROL");
    EXPECT_STREQ(RPCChannelTypeText(RPCChannelType::Data), "DATA");
    EXPECT_STREQ(RPCChannelTypeText(static_cast<RPCChannelType>(2)), "unknown2");
}

TEST(QSCServiceText, AnUnknownTextIsTheThreadsOwn) {
    const char* const text = QSCService_StateText(static_cast<QSCRPC_ObjectState>(6));
    std::thread([] { QSCService_StateText(static_cast<QSCRPC_ObjectState>(77)); }).join();
    EXPECT_STREQ(text, "unknown[6]");
}

}  // namespace
