// Message channels and the ids of server connections, on a server table under the test's control.
#include <memory>
#include <thread>

#include "rpc/MsgChannelId.h"
#include "tests/rpc/ChannelService.h"

namespace {

void* Word(uintptr_t value) {
    return reinterpret_cast<void*>(value);
}

void* const kServer = Word(0x51);
void* const kChannel = Word(0xC1);  // the service's id of a channel
void* const kPeer = Word(0xC2);
QSCService_MsgChannelInfo* const kInfo = reinterpret_cast<QSCService_MsgChannelInfo*>(0x1F);

// An instance of a server connection, whose table notes its calls and gives what result says.
class MsgChannel : public testing::Test {
protected:
    void SetUp() override {
        current = this;
        table.GetServerChannel = [](QscServerID id) { return id; };
        table.GetUniqueSerializedIdSize = [](QscServerID id) { return Call(Text("size %p", id)); };
        table.GetUniqueSerializedId = [](QscServerID id, int size, char* buffer) {
            if (buffer) std::memcpy(buffer, "abcdefgh", static_cast<size_t>(size));  // no end
            return Call(Text("id %p %d", id, size));
        };
        table.IsUniqueSerializedIdOwner = [](QscServerID id, const char* text) {
            return Call(Text("owner %p %s", id, text ? text : "(null)"));
        };
        table.OpenMsgChannel = [](void* context, QscServerID id, const char* name,
                                  const QSCService_MsgChannelNotifySink* given) {
            EXPECT_EQ(given->version, 1u);
            current->sink = *given;
            current->context = context;
            if (current->duringOpen) current->duringOpen();
            return Call(Text("open %p %s", id, name ? name : "(null)"));
        };
        table.GetMsgChannelInfo = [](QscServerID id, QscMsgChannelID channel, QSCService_MsgChannelInfo* info) {
            EXPECT_EQ(info, kInfo);
            return Call(Text("info %p %p", id, channel));
        };
        table.CloseMsgChannel = [](QscMsgChannelID channel) { return Call(Text("close %p", channel)); };
        table.SendMsgChannel = [](QscMsgChannelID channel, void* a, void* b, void* c) {
            return Call(Text("send %p %p %p %p", channel, a, b, c));
        };
        manager->SetServerInterface(table);
        manager->QSCPluginInit(service.Query());
        managerHandle = manager->FindHandle(log);
        void* handle = nullptr;
        ASSERT_EQ(RPCManager::QscOnServerInstanceCreated(managerHandle, kServer, &handle), TRUE);
        instance = manager->latest;
        Forget();
    }
    void TearDown() override { RPCManager::QscOnServerInstanceDestroyed(managerHandle, nullptr, kServer); }

    void* Open() {
        void* const handle = instance->OpenMsgChannel("name");
        EXPECT_NE(handle, nullptr);
        Forget();
        return handle;
    }
    void Forget() {
        service.TakeCalls();
        log.Clear();
    }
    Bool FireOpened() { return sink.QscOnMsgChannelOpened(context, kChannel); }
    void FirePeer(QscMsgChannelID peer = kPeer) {
        sink.QscOnMsgChannelPeerOpened(context, Word(1), peer, Word(2), Word(3));
    }

    // All lines but traces.
    Names Said() const {
        Names said;
        for (const LogCapture::Line& line : log.Lines()) {
            if (!line.text.starts_with("Enter") && !line.text.starts_with("Exit")) {
                said.push_back("AEWIDTVN"[line.level] + (" " + line.text));
            }
        }
        return said;
    }

    LogCapture log;
    ChannelService service;
    RCPtr<HookManager> manager{new HookManager(RefCountOn)};
    void* managerHandle = nullptr;
    RCPtr<HookInstance> instance;
    QSCService_ServerInterface table{};
    QSCService_MsgChannelNotifySink sink{};
    void* context = nullptr;  // the handle of the latest channel
    std::function<void()> duringOpen;
    Bool result = TRUE;

private:
    static Bool Call(const std::string& call) {
        ChannelService::Note(call);
        return current->result;
    }

    inline static MsgChannel* current = nullptr;
};

TEST_F(MsgChannel, LivesFromItsOpeningToItsClose) {
    void* const handle = instance->OpenMsgChannel("name");
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(handle, context);
    sink.unused2();
    // Not refused before it is open: the service knows what it has.
    EXPECT_TRUE(instance->SendMsgChannel(handle, Word(4), Word(5), Word(6)));
    EXPECT_EQ(FireOpened(), TRUE);
    EXPECT_TRUE(instance->SendMsgChannel(handle, Word(4), Word(5), Word(6)));
    EXPECT_TRUE(instance->CloseMsgChannel(handle));
    EXPECT_EQ(service.TakeCalls(),
              (Names{"open 0x51 name", "send (nil) 0x4 0x5 0x6", "send 0xc1 0x4 0x5 0x6", "close 0xc1"}));
    EXPECT_EQ(Said(), (Names{Text("I OpenMsgChannel succeed [0x%p].", handle),
                             Text("D MsgChannel[0x%p] is opened.\n", handle)}));
    Forget();
    EXPECT_FALSE(instance->CloseMsgChannel(handle));
    EXPECT_FALSE(instance->SendMsgChannel(handle, nullptr, nullptr, nullptr));
    EXPECT_EQ(service.TakeCalls(), Names{});
    EXPECT_EQ(Said(), Names{}) << "a stale handle is no news";
}

TEST_F(MsgChannel, ItsEventsMayComeInAnyOrder) {
    std::string order = "cop";  // close, opened, peer
    do {
        SCOPED_TRACE(order);
        void* const handle = Open();
        const size_t close = order.find('c');
        const bool opened = order.find('o') < close, peer = order.find('p') < close;
        for (const char event : order) {
            if (event == 'o') {
                EXPECT_EQ(FireOpened(), opened ? TRUE : FALSE);
            } else if (event == 'p') {
                FirePeer();
            } else {
                EXPECT_EQ(instance->IsMsgChannelOpened(handle), opened);
                EXPECT_TRUE(instance->CloseMsgChannel(handle));
            }
        }
        EXPECT_EQ(service.TakeCalls(), Names{opened ? "close 0xc1" : "close (nil)"});
        EXPECT_FALSE(instance->IsMsgChannelOpened(handle));
        const Names heard = service.TakeHeard();
        EXPECT_EQ(std::count(heard.begin(), heard.end(), "opened name"), opened);
        EXPECT_EQ(std::count(heard.begin(), heard.end(), "peer 0x1 0xc2 0x2 0x3"), peer);
    } while (std::next_permutation(order.begin(), order.end()));
}

TEST_F(MsgChannel, ItsEventsMayComeBeforeTheOpeningReturns) {
    duringOpen = [this] {
        EXPECT_EQ(FireOpened(), TRUE);
        FirePeer();
    };
    EXPECT_TRUE(instance->IsMsgChannelOpened(Open()));
    EXPECT_EQ(service.TakeHeard().size(), 2u);
    EXPECT_TRUE(instance->CloseMsgChannel(context));

    // A service that reports and then refuses.
    result = FALSE;
    EXPECT_EQ(instance->OpenMsgChannel("name"), nullptr);
    EXPECT_FALSE(MsgChannelId::FindByHandle(context));
    result = TRUE;

    // Each hook may close it.
    duringOpen = [this] { FireOpened(); };
    instance->onHook = [this](const std::string&) { EXPECT_TRUE(instance->CloseMsgChannel(context)); };
    service.TakeHeard();
    EXPECT_EQ(instance->OpenMsgChannel(nullptr), context);
    EXPECT_FALSE(MsgChannelId::FindByHandle(context));
    EXPECT_EQ(service.TakeHeard(), Names{"opened "});
    duringOpen = nullptr;
    Open();
    FirePeer();
    EXPECT_FALSE(MsgChannelId::FindByHandle(context));
    instance->onHook = nullptr;
}

TEST_F(MsgChannel, WhatTheServiceLacksOrRefusesFailsEachOperation) {
    struct Operation {
        const char* name;
        std::function<long(void* handle)> run;
    };
    char buffer[4];
    const Operation close{"CloseMsgChannel", [&](void* handle) { return instance->CloseMsgChannel(handle); }};
    const Operation send{"SendMsgChannel",
                         [&](void* handle) { return instance->SendMsgChannel(handle, nullptr, nullptr, nullptr); }};
    const Operation info{"GetMsgChannelInfo", [&](void* handle) { return instance->GetMsgChannelInfo(handle, kInfo); }};
    const Operation size{"GetUniqueSerializedIdSize", [&](void*) { return instance->GetUniqueSerializedIdSize(); }};
    const Operation id{"GetUniqueSerializedId",
                       [&](void*) { return instance->GetUniqueSerializedId(sizeof buffer, buffer); }};
    const Operation owner{"IsUniqueSerializedIdOwner",
                          [&](void*) { return instance->IsUniqueSerializedIdOwner("text"); }};
    constexpr Bool kMissing = 99;
    struct Case {
        const Operation& operation;
        Bool result;  // of the service, if it has the word
        long expected;
        Names said;
    };
    const Names getsOwn = {"T Get its own msgChannel[0x0xc1] info.\n"};
    const Case cases[] = {
        {close, kMissing, 0, {}},
        {close, 0, 0, {}},
        {close, 1, 1, {}},
        {close, 2, 0, {}},
        {send, kMissing, 0, {}},
        {send, 1, 1, {}},
        {send, 2, 0, {}},
        {info, kMissing, 0, getsOwn},
        {info, 1, 1, getsOwn},
        {info, 2, 0, getsOwn},
        {size, kMissing, 0, {"W GetUniqueSerializedIdSize API is not available.\n"}},
        {size, 37, 37, {"D Server 0x0x51 id size is 37.\n"}},
        {size, -1, -1, {"D Server 0x0x51 id size is -1.\n"}},
        {id, kMissing, 0, {"W GetUniqueSerializedId API is not available.\n"}},
        {id, 0, 0, {"W Server 0x0x51 GetUniqueSerializedId with 4 bytes buffer failed\n"}},
        {id, 1, 1, {"D Server 0x0x51 id[abcd].\n"}},
        {id, 2, 2, {"D Server 0x0x51 id[abcd].\n"}},
        {owner, kMissing, 0, {"W IsUniqueSerializedIdOwner API is not available.\n"}},
        {owner, 0, 0, {"D [text] does not match 0x0x51.\n"}},
        {owner, 1, 1, {"D [text] match 0x0x51.\n"}},
        {owner, 2, 2, {"D [text] does not match 0x0x51.\n"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(Text("%s %d", c.operation.name, c.result));
        void* const handle = Open();
        FireOpened();
        Forget();
        if (c.result == kMissing) {
            manager->SetServerInterface({});
        } else {
            result = c.result;
        }
        EXPECT_EQ(c.operation.run(handle), c.expected);
        EXPECT_EQ(service.TakeCalls().size(), c.result == kMissing ? 0u : 1u);
        EXPECT_EQ(Said(), c.said);
        for (const LogCapture::Line& line : log.Lines()) {
            EXPECT_NE(line.function.find(c.operation.name), std::string::npos) << line.text;
        }
        instance->CloseMsgChannel(handle);
        EXPECT_FALSE(MsgChannelId::FindByHandle(handle)) << "gone in any case";
        manager->SetServerInterface(table);
        result = TRUE;
    }
}

TEST_F(MsgChannel, AnOpeningTakesAnyTrueResultAndWithoutAHandleNoneIsOpened) {
    result = FALSE;
    EXPECT_EQ(instance->OpenMsgChannel("name"), nullptr);
    EXPECT_EQ(Said(), Names{"E OpenMsgChannel failed.\n"});
    manager->SetServerInterface({});
    log.Clear();
    EXPECT_EQ(instance->OpenMsgChannel("name"), nullptr);
    EXPECT_EQ(Said(), Names{});
    manager->SetServerInterface(table);
    result = 2;
    std::vector<void*> handles;
    while (void* const handle = instance->OpenMsgChannel("name")) handles.push_back(handle);
    EXPECT_EQ(handles.size(), 4096u) << "all there are: failures have left none behind";
    EXPECT_EQ(FireOpened(), FALSE);
    EXPECT_FALSE(instance->CloseMsgChannel(handles.front())) << "a close takes 1 only";
    handles.front() = Open();
    result = TRUE;
    for (void* const handle : handles) EXPECT_TRUE(instance->CloseMsgChannel(handle));
}

TEST_F(MsgChannel, InfoIsOfAPeerOfOneOfItsOwnOrOfAnyOtherId) {
    void* const handle = Open();
    EXPECT_FALSE(instance->GetMsgChannelInfo(handle, kInfo));
    EXPECT_EQ(Said(), Names{"W Please wait for OnMsgChannelReady.\n"});
    EXPECT_EQ(service.TakeCalls(), Names{});
    FireOpened();
    for (int time = 0; time < 2; ++time) FirePeer();
    const auto ask = [&](QscMsgChannelID id, const std::string& said, const std::string& call) {
        Forget();
        EXPECT_TRUE(instance->GetMsgChannelInfo(id, kInfo));
        EXPECT_EQ(Said(), Names{said});
        EXPECT_EQ(service.TakeCalls(), Names{call});
    };
    ask(handle, "T Get its own msgChannel[0x0xc1] info.\n", "info 0x51 0xc1");
    ask(kPeer, "T Get peer [0x0xc2] info.\n", "info 0x51 0xc2");
    ask(Word(0xC3), "T Get its own msgChannel[0x0xc3] info.\n", "info 0x51 0xc3");
    // Peers stay known after the close, and come before handles.
    FirePeer(handle);
    ask(handle, Text("T Get peer [0x%p] info.\n", handle), Text("info 0x51 %p", handle));
    EXPECT_TRUE(instance->CloseMsgChannel(handle));
    ask(kPeer, "T Get peer [0x0xc2] info.\n", "info 0x51 0xc2");
}

TEST_F(MsgChannel, SerializedIdsOfAnySizeAreLoggedWithinTheirBuffer) {
    for (const int size : {8, 1, 0}) {
        const std::unique_ptr<char[]> buffer(new char[static_cast<size_t>(size)]);
        log.Clear();
        EXPECT_EQ(instance->GetUniqueSerializedId(size, buffer.get()), TRUE);
        EXPECT_EQ(Said(), Names{Text("D Server 0x0x51 id[%.*s].\n", size, "abcdefgh")});
    }
    log.Clear();
    EXPECT_EQ(instance->GetUniqueSerializedId(8, nullptr), TRUE);
    EXPECT_EQ(instance->IsUniqueSerializedIdOwner(nullptr), TRUE);
    EXPECT_EQ(Said(), (Names{"D Server 0x0x51 id[].\n", "D [] match 0x0x51.\n"}));
    EXPECT_EQ(service.TakeCalls().back(), "owner 0x51 (null)");
}

// A channel stays until somebody closes it, on whatever instance.
TEST_F(MsgChannel, AnInstanceThatIsGoneHearsNothing) {
    RCPtr<HookInstance> opener(new HookInstance(manager.Get()));
    void* const handle = opener->OpenMsgChannel("name");
    EXPECT_EQ(service.TakeCalls(), Names{"open (nil) name"}) << "of no server connection";
    opener = nullptr;
    EXPECT_EQ(FireOpened(), FALSE);
    EXPECT_TRUE(log.Has(kLogDebug, Text("MsgChannel[0x%p] is opened.\n", handle)));
    FirePeer();
    EXPECT_EQ(service.TakeHeard(), Names{});
    EXPECT_TRUE(instance->IsMsgChannelOpened(handle));
    EXPECT_TRUE(instance->CloseMsgChannel(handle));
    EXPECT_FALSE(MsgChannelId::FindByHandle(handle));
}

TEST_F(MsgChannel, WithoutAManagerACloseOnlyDropsTheHandle) {
    RCPtr<HookManager> shortLived(new HookManager(RefCountOn));
    shortLived->SetServerInterface(table);
    const RCPtr<HookInstance> orphan(new HookInstance(shortLived.Get()));
    void* const handle = orphan->OpenMsgChannel("name");
    shortLived = nullptr;
    Forget();
    EXPECT_EQ(orphan->OpenMsgChannel("name"), nullptr);
    EXPECT_EQ(Said(), Names{"E Out of memory.\n"});
    EXPECT_FALSE(orphan->SendMsgChannel(handle, nullptr, nullptr, nullptr));
    EXPECT_EQ(FireOpened(), TRUE) << "the instance is there";
    EXPECT_TRUE(orphan->IsMsgChannelOpened(handle));
    EXPECT_FALSE(orphan->CloseMsgChannel(handle));
    EXPECT_FALSE(MsgChannelId::FindByHandle(handle));
    EXPECT_EQ(service.TakeCalls(), Names{});
}

// The service's callbacks, another user and two closes meet; what each gets is fit for use to the end of its call.
TEST_F(MsgChannel, AClosedChannelMeetsItsCallbacksAndItsUsers) {
    Logger::SetSink(nullptr, nullptr, kLogAlways);  // nobody looks into the lines, which take their time
    for (int round = 0; round < 20; ++round) {
        void* const handle = instance->OpenMsgChannel("name");
        ASSERT_NE(handle, nullptr);
        std::atomic<uintptr_t> turns{0};
        const auto isThere = [&] { return static_cast<bool>(MsgChannelId::FindByHandle(handle)); };
        const std::function<void()> uses[] = {
            [&] { FireOpened(); },
            [&] { FirePeer(Word(0x100)); },
            [&] { FirePeer(Word(0x100 + turns % 8)); },
            [&] {
                instance->SendMsgChannel(handle, nullptr, nullptr, nullptr);
                instance->GetMsgChannelInfo(handle, kInfo);
                instance->GetMsgChannelInfo(Word(0x100), kInfo);
                instance->IsMsgChannelOpened(handle);
            },
        };
        std::vector<std::thread> threads;
        for (const std::function<void()>& use : uses) {
            threads.emplace_back([&] {
                do use();
                while (++turns, isThere());
            });
        }
        while (turns < 8) std::this_thread::yield();
        std::thread closer([&] { instance->CloseMsgChannel(handle); });
        instance->CloseMsgChannel(handle);
        closer.join();
        for (std::thread& thread : threads) thread.join();
        EXPECT_FALSE(isThere());
    }
    const Names heard = service.TakeHeard();
    EXPECT_NE(std::find(heard.begin(), heard.end(), "opened name"), heard.end());
}

}  // namespace
