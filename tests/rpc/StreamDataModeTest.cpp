// What an instance does with a channel that has turned into a descriptor.
#include "tests/rpc/ChannelService.h"

namespace {

constexpr const char* kRefusedDisconnect = "ChannelDisconnect is not supported in streamData mode\n";

class StreamDataMode : public InstanceUnderTest {
protected:
    // Before Start: the service then answers a switch with that descriptor, or refuses it.
    void Answer(int descriptor) {
        fd = descriptor;
        current = this;
        service.channel.SwitchToStreamData = [](const char* name, void* hChannel, int* stored) {
            EXPECT_STREQ(name, "dataTcp");
            EXPECT_EQ(hChannel, &current->channelHandle);
            *stored = current->fd;
            return current->fd < 0 ? FALSE : Bool{2};
        };
    }

    int fd = -1;
    inline static StreamDataMode* current = nullptr;
};

TEST_F(StreamDataMode, RefusesWhatNeedsTheChannel) {
    Answer(77);
    Start();
    EXPECT_EQ(instance->SwitchToStreamDataMode(), 77);
    EXPECT_TRUE(log.Has(kLogInfo, "Switch to StreamData mode Succeeded fd=77!\n"));
    service.TakeCalls();
    RPCPluginInstance& i = *instance;
    char name[] = "name";
    void* hObject = nullptr;
    const QSCRPC_ObjectNotifySink sink{};
    const std::pair<const char*, std::function<int()>> operations[] = {
        {"RegisterChannelSink", [&] { return i.RegisterChannelSink(nullptr); }},
        {"UnregisterChannelSink", [&] { return i.UnregisterChannelSink(); }},
        {"ChannelConnect", [&] { return i.ChannelConnect(); }},
        {"ChannelDisconnect", [&] { return i.ChannelDisconnect(); }},
        {"ChannelObjCreate", [&] { return i.ChannelObjCreate(name, &sink, false, false, &hObject); }},
        {"ChannelObjDestroy", [&] { return i.ChannelObjDestroy(name, &hObject); }},
        {"ChannelControlObjCreate", [&] { return i.ChannelControlObjCreate(name); }},
        {"ChannelDataObjCreate", [&] { return i.ChannelDataObjCreate(name); }},
        {"InvokeMessage", [&] { return i.InvokeMessage(nullptr, FALSE, RPCChannelType::Data); }},
        {"WaitUntilReady", [&] { return i.WaitUntilReady(0); }},
        {"WaitUntilReadyOrRejected", [&] { return i.WaitUntilReadyOrRejected(0); }},
        {"WaitForPendingMessages", [&] { return i.WaitForPendingMessages(0); }},
    };
    for (const auto& [operation, call] : operations) {
        log.Clear();
        EXPECT_EQ(call(), 0) << operation;
        const std::string line = Text("%s is not supported in streamData mode\n", operation);
        EXPECT_EQ(Errors(), Names{line});
        EXPECT_NE(OwnerOf(line, log).find(Text("::%s(", operation)), std::string::npos);
    }
    EXPECT_EQ(service.TakeCalls(), Names{}) << "the service hears of none of them";
}

TEST_F(StreamDataMode, AFailedSwitchChangesNothing) {
    for (const bool missing : {true, false}) {
        if (!missing) Answer(-1);
        Start();
        EXPECT_EQ(instance->SwitchToStreamDataMode(), 0);
        EXPECT_EQ(Errors(), Names{"Switch to StreamData mode failed!\n"});
        EXPECT_TRUE(instance->ChannelConnect());
    }
    fd = 0;  // a descriptor, unlike the answer to a failure
    EXPECT_EQ(instance->SwitchToStreamDataMode(), 0);
    EXPECT_TRUE(log.Has(kLogInfo, "Switch to StreamData mode Succeeded fd=0!\n"));
    EXPECT_FALSE(instance->ChannelDisconnect());
}

TEST_F(StreamDataMode, ContextsAreMadeAndDestroyedButNotSent) {
    Answer(5);
    StartReady();
    EXPECT_EQ(instance->SwitchToStreamDataMode(), 5);
    void* hContext = nullptr;
    uint32_t options = 0;
    EXPECT_TRUE(instance->CreateMessage(&hContext, RPCChannelType::Control));
    EXPECT_TRUE(instance->CreateExtMessage(&hContext, RPCChannelType::Data, 3));
    EXPECT_TRUE(instance->GetChannelOptions(RPCChannelType::Data, &options));
    EXPECT_FALSE(instance->InvokeMessage(hContext, TRUE, RPCChannelType::Data));
    EXPECT_TRUE(instance->DestroyMessage(hContext));
    EXPECT_EQ(service.TakeCalls(), (Names{"CreateContext", "CreateContextEx 3", "GetObjectOptions", "DestroyContext"}));
    EXPECT_EQ(instance->UpdatePendingCount(0, nullptr, 0), 0) << "a refused request is not pending";
}

// The service's word on the channel arrives, but the objects and the readiness stay.
TEST_F(StreamDataMode, TheChannelsEventsNoLongerTakeAnythingDown) {
    Answer(5);
    StartReady();
    EXPECT_EQ(instance->SwitchToStreamDataMode(), 5);
    service.TakeCalls();
    service.FireConnection(QSC_CONNECTION_DISCONNECTED);
    service.FireConnection(QSC_CONNECTION_CONNECTED);
    EXPECT_EQ(Errors(), (Names{kRefusedDisconnect, "ChannelConnect is not supported in streamData mode\n"}));
    service.FireChannel(QSC_CHANNEL_DISCONNECTED);
    EXPECT_EQ(log.Count("ChannelObjDestroy is not supported in streamData mode\n"), 2u);
    EXPECT_EQ(service.TakeCalls(), Names{});
    EXPECT_TRUE(instance->IsReady());
    EXPECT_EQ(service.TakeHeard(), Names{});
}

}  // namespace
