#include "rpc/QSCServiceText.h"

#include <gtest/gtest.h>

#include <thread>

namespace {

TEST(QSCServiceText, NamesEveryStateAndNumbersTheRest) {
    int32_t value = -2;
    for (const char* text : {"unknown-2", "UNINITIALIZED", "DISCONNECTED", "PENDING", "CONNECTED", "unknown3"}) {
        EXPECT_STREQ(QSCService_StateText(static_cast<QSCService_ConnectionState>(value)), text);
        EXPECT_STREQ(QSCService_StateText(static_cast<QSCService_ChannelState>(value)), text);
        ++value;
    }
    value = -2;
    for (const char* text :
         {"unknown[-2]", "UNINITIALIZED", "DISCONNECTED", "PENDING", "CONNECTED", "SIDE_CHANNEL_PENDING",
          "SIDE_CHANNEL_CONNECTED", "PENDING_AND_PEER_OBJ_CREATED", "unknown[6]"}) {
        EXPECT_STREQ(QSCService_StateText(static_cast<QSCRPC_ObjectState>(value++)), text);
    }
    value = 0;
    for (const char* text : {"CONTROL", "DATA", "unknown2"}) {
        EXPECT_STREQ(RPCChannelTypeText(static_cast<RPCChannelType>(value++)), text);
    }
}

TEST(QSCServiceText, AnUnknownTextIsTheThreadsOwn) {
    const char* const text = QSCService_StateText(static_cast<QSCRPC_ObjectState>(6));
    std::thread([] { QSCService_StateText(static_cast<QSCRPC_ObjectState>(77)); }).join();
    EXPECT_STREQ(text, "unknown[6]");
}

}  // namespace
