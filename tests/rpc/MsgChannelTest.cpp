// Message channels and the ids of server connections, on a server table under the test's control.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "rpc/MsgChannelId.h"
#include "tests/rpc/TableService.h"
#include "tests/rpc/TestManager.h"

namespace {

void* Word(uintptr_t value) {
    return reinterpret_cast<void*>(value);
}

void* const kServer = Word(0x51);
void* const kChannel = Word(0xC1);  // the service's id of a channel
void* const kPeer = Word(0xC2);
QSCService_MsgChannelInfo* const kInfo = reinterpret_cast<QSCService_MsgChannelInfo*>(0x1F);

std::string Hex(const void* word) {
    return WithHandle("%p", word);
}

class MsgInstance : public TestInstance {
public:
    MsgInstance(RPCManager* manager, Texts* heard) : TestInstance(manager, heard) {}
    void OnMsgChannelReady(void* handle, const char* name) override {
        Hear(std::string("opened ") + name);
        if (onReady) onReady(handle);
    }
    void OnMsgChannelPeerOpened(void* handle, void* a, QscMsgChannelID peer, void* b, void* c) override {
        Hear("peer " + Hex(a) + " " + Hex(peer) + " " + Hex(b) + " " + Hex(c));
        if (onPeer) onPeer(handle);
    }

    std::function<void(void*handle)> onReady, onPeer;

private:
    void Hear(const std::string& hook) {
        static std::mutex lock;
        const std::lock_guard guard(lock);
        heard.push_back(hook);
    }
};

class MsgManager : public TestManager {
public:
    MsgManager() : TestManager(RefCountOn) {}
    RPCPluginInstance* OnCreateServerInstance(QscServerID) override { return made = new MsgInstance(this, &heard); }

    MsgInstance* made = nullptr;
};

// An instance of a server connection, whose table notes its calls and gives what result says.
class MsgChannel : public testing::Test {
protected:
    void SetUp() override {
        current = this;
        table.GetServerChannel = [](QscServerID id) { return id; };
        table.GetUniqueSerializedIdSize = [](QscServerID id) { return current->Call("size " + Hex(id)); };
        table.GetUniqueSerializedId = [](QscServerID id, int size, char* buffer) {
            if (buffer) std::memcpy(buffer, "abcdefgh", static_cast<size_t>(size));  // no end
            return current->Call("id " + Hex(id) + " " + std::to_string(size));
        };
        table.IsUniqueSerializedIdOwner = [](QscServerID id, const char* text) {
            return current->Call("owner " + Hex(id) + " " + (text ? text : "(null)"));
        };
        table.OpenMsgChannel = [](void* context, QscServerID id, const char* name,
                                  const QSCService_MsgChannelNotifySink* given) {
            current->sink = *given;
            current->context = context;
            if (current->duringOpen) current->duringOpen();
            return current->Call("open " + Hex(id) + " " + (name ? name : "(null)"));
        };
        table.GetMsgChannelInfo = [](QscServerID id, QscMsgChannelID channel, QSCService_MsgChannelInfo* info) {
            EXPECT_EQ(info, kInfo);
            return current->Call("info " + Hex(id) + " " + Hex(channel));
        };
        table.CloseMsgChannel = [](QscMsgChannelID channel) { return current->Call("close " + Hex(channel)); };
        table.SendMsgChannel = [](QscMsgChannelID channel, void* a, void* b, void* c) {
            return current->Call("send " + Hex(channel) + " " + Hex(a) + " " + Hex(b) + " " + Hex(c));
        };
        manager->SetServerInterface(table);
        manager->QSCPluginInit(service.Query());
        void* handle = nullptr;
        ASSERT_EQ(RPCManager::QscOnServerInstanceCreated(manager->FindHandle(log), kServer, &handle), TRUE);
        instance = manager->made;
        managerHandle = manager->FindHandle(log);
        manager->TakeHeard();
        log.Clear();
    }
    void TearDown() override {
        if (manager) RPCManager::QscOnServerInstanceDestroyed(managerHandle, nullptr, kServer);
        instance = nullptr;
        manager = nullptr;
        current = nullptr;
    }

    void* Open(const char* name = "name") {
        void* const handle = instance->OpenMsgChannel(name);
        EXPECT_NE(handle, nullptr);
        TakeCalls();
        log.Clear();
        return handle;
    }
    Bool FireOpened(QscMsgChannelID id = kChannel) { return sink.QscOnMsgChannelOpened(context, id); }
    void FirePeer(QscMsgChannelID peer = kPeer) {
        sink.QscOnMsgChannelPeerOpened(context, Word(1), peer, Word(2), Word(3));
    }

    Bool Call(const std::string& call) {
        const std::lock_guard guard(lock);
        calls.push_back(call);
        return result;
    }
    Texts TakeCalls() {
        const std::lock_guard guard(lock);
        return std::exchange(calls, {});
    }
    // All lines but traces.
    Texts Said() const {
        Texts said;
        for (const LogCapture::Line& line : log.Lines()) {
            if (!line.text.starts_with("Enter") && !line.text.starts_with("Exit")) {
                said.push_back("AEWIDTVN"[line.level] + (" " + line.text));
            }
        }
        return said;
    }

    LogCapture log;
    TableService service;
    RCPtr<MsgManager> manager{new MsgManager};
    void* managerHandle = nullptr;
    RCPtr<MsgInstance> instance;
    QSCService_ServerInterface table{};
    QSCService_MsgChannelNotifySink sink{};
    void* context = nullptr;
    std::function<void()> duringOpen;
    Bool result = TRUE;

private:
    std::mutex lock;  // guards calls
    Texts calls;

    inline static MsgChannel* current = nullptr;
};

TEST_F(MsgChannel, LivesFromItsOpeningToItsClose) {
    void* const handle = instance->OpenMsgChannel("name");
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(handle, context);
    EXPECT_EQ(TakeCalls(), Texts{"open 0x51 name"});
    EXPECT_EQ(Said(), Texts{WithHandle("I OpenMsgChannel succeed [0x%p].", handle)});
    EXPECT_EQ(sink.version, 1u);
    sink.unused2();
    EXPECT_FALSE(instance->IsMsgChannelOpened(handle));
    // Not refused here: the service knows what it has.
    EXPECT_TRUE(instance->SendMsgChannel(handle, Word(4), Word(5), Word(6)));
    EXPECT_EQ(TakeCalls(), Texts{"send (nil) 0x4 0x5 0x6"});

    log.Clear();
    EXPECT_EQ(FireOpened(), TRUE);
    EXPECT_EQ(Said(), Texts{WithHandle("D MsgChannel[0x%p] is opened.\n", handle)});
    EXPECT_TRUE(instance->IsMsgChannelOpened(handle));
    FirePeer();
    EXPECT_EQ(manager->TakeHeard(), (Texts{"opened name", "peer 0x1 0xc2 0x2 0x3"}));
    EXPECT_TRUE(instance->SendMsgChannel(handle, Word(4), Word(5), Word(6)));
    EXPECT_EQ(TakeCalls(), Texts{"send 0xc1 0x4 0x5 0x6"});

    log.Clear();
    EXPECT_TRUE(instance->CloseMsgChannel(handle));
    EXPECT_EQ(TakeCalls(), Texts{"close 0xc1"});
    EXPECT_FALSE(MsgChannelId::FindByHandle(handle));
    EXPECT_FALSE(instance->CloseMsgChannel(handle));
    EXPECT_FALSE(instance->SendMsgChannel(handle, nullptr, nullptr, nullptr));
    EXPECT_FALSE(instance->IsMsgChannelOpened(handle));
    EXPECT_EQ(FireOpened(), FALSE);
    FirePeer();
    EXPECT_EQ(TakeCalls(), Texts{});
    EXPECT_EQ(manager->TakeHeard(), Texts{});
    EXPECT_EQ(Said(), Texts{}) << "a stale handle is no news";
}

TEST_F(MsgChannel, ItsEventsMayComeInAnyOrder) {
    const std::string opened = "opened name", peer = "peer 0x1 0xc2 0x2 0x3";
    std::string order = "cop";
    do {
        SCOPED_TRACE(order);
        void* const handle = Open();
        bool closed = false, isOpen = false;
        Texts expected;
        for (const char event : order) {
            if (event == 'o') {
                EXPECT_EQ(FireOpened(), closed ? FALSE : TRUE);
                isOpen = true;
                if (!closed) expected.push_back(opened);
            } else if (event == 'p') {
                FirePeer();
                if (!closed) expected.push_back(peer);
            } else {
                EXPECT_TRUE(instance->CloseMsgChannel(handle));
                EXPECT_EQ(TakeCalls(), Texts{isOpen ? "close 0xc1" : "close (nil)"});
                closed = true;
            }
            EXPECT_EQ(instance->IsMsgChannelOpened(handle), isOpen && !closed);
        }
        EXPECT_EQ(manager->TakeHeard(), expected);
    } while (std::next_permutation(order.begin(), order.end()));
}

TEST_F(MsgChannel, ItsEventsMayComeBeforeTheOpeningReturns) {
    duringOpen = [this] {
        EXPECT_EQ(FireOpened(), TRUE);
        FirePeer();
    };
    void* const handle = Open();
    EXPECT_TRUE(instance->IsMsgChannelOpened(handle));
    EXPECT_EQ(manager->TakeHeard().size(), 2u);
    EXPECT_TRUE(instance->CloseMsgChannel(handle));

    // A service that reports and then refuses.
    result = FALSE;
    EXPECT_EQ(instance->OpenMsgChannel("name"), nullptr);
    EXPECT_FALSE(MsgChannelId::FindByHandle(context));
    result = TRUE;

    // The hook may close it.
    duringOpen = [this] { FireOpened(); };
    instance->onReady = [this](void* opened) { EXPECT_TRUE(instance->CloseMsgChannel(opened)); };
    void* const closed = instance->OpenMsgChannel(nullptr);
    EXPECT_EQ(closed, context);
    EXPECT_FALSE(MsgChannelId::FindByHandle(closed));
    EXPECT_EQ(manager->TakeHeard(), (Texts{"opened name", "peer 0x1 0xc2 0x2 0x3", "opened "}));
    instance->onReady = nullptr;

    duringOpen = nullptr;
    void* const last = Open();
    instance->onPeer = [this](void* opened) { EXPECT_TRUE(instance->CloseMsgChannel(opened)); };
    FirePeer();
    EXPECT_FALSE(MsgChannelId::FindByHandle(last));
}

TEST_F(MsgChannel, WhatTheServiceLacksOrRefusesFailsEachOperation) {
    struct Case {
        const char* name;
        std::function<long(void* handle)> operation;
        std::function<void(QSCService_ServerInterface&)> remove;
        long missing;
        Texts saidMissing;
        std::vector<std::pair<Bool, long>> results;  // of the service and of the operation
        std::vector<Texts> said;                     // for each
    };
    char buffer[4];
    const Texts getsOwn = {"T Get its own msgChannel[0x0xc1] info.\n"};
    const Texts noMatch = {"D [text] does not match 0x0x51.\n"};
    const Case cases[] = {
        {"CloseMsgChannel",
         [&](void* handle) { return instance->CloseMsgChannel(handle); },
         [](auto& t) { t.CloseMsgChannel = nullptr; },
         0,
         {},
         {{0, 0}, {1, 1}, {2, 0}, {-1, 0}},
         {{}, {}, {}, {}}},
        {"SendMsgChannel",
         [&](void* handle) { return instance->SendMsgChannel(handle, nullptr, nullptr, nullptr); },
         [](auto& t) { t.SendMsgChannel = nullptr; },
         0,
         {},
         {{0, 0}, {1, 1}, {2, 0}, {-1, 0}},
         {{}, {}, {}, {}}},
        {"GetMsgChannelInfo",
         [&](void* handle) { return instance->GetMsgChannelInfo(handle, kInfo); },
         [](auto& t) { t.GetMsgChannelInfo = nullptr; },
         0,
         getsOwn,
         {{0, 0}, {1, 1}, {2, 0}, {-1, 0}},
         {getsOwn, getsOwn, getsOwn, getsOwn}},
        {"GetUniqueSerializedIdSize",
         [&](void*) { return instance->GetUniqueSerializedIdSize(); },
         [](auto& t) { t.GetUniqueSerializedIdSize = nullptr; },
         0,
         {"W GetUniqueSerializedIdSize API is not available.\n"},
         {{0, 0}, {37, 37}, {-1, -1}},
         {{"D Server 0x0x51 id size is 0.\n"},
          {"D Server 0x0x51 id size is 37.\n"},
          {"D Server 0x0x51 id size is -1.\n"}}},
        {"GetUniqueSerializedId",
         [&](void*) { return instance->GetUniqueSerializedId(sizeof buffer, buffer); },
         [](auto& t) { t.GetUniqueSerializedId = nullptr; },
         0,
         {"W GetUniqueSerializedId API is not available.\n"},
         {{0, 0}, {1, 1}, {2, 2}},
         {{"W Server 0x0x51 GetUniqueSerializedId with 4 bytes buffer failed\n"},
          {"D Server 0x0x51 id[abcd].\n"},
          {"D Server 0x0x51 id[abcd].\n"}}},
        {"IsUniqueSerializedIdOwner",
         [&](void*) { return instance->IsUniqueSerializedIdOwner("text"); },
         [](auto& t) { t.IsUniqueSerializedIdOwner = nullptr; },
         0,
         {"W IsUniqueSerializedIdOwner API is not available.\n"},
         {{0, 0}, {1, 1}, {2, 2}},
         {noMatch, {"D [text] match 0x0x51.\n"}, noMatch}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        result = TRUE;
        void* handle = Open();
        FireOpened();
        QSCService_ServerInterface without = table;
        c.remove(without);
        manager->SetServerInterface(without);
        log.Clear();
        EXPECT_EQ(c.operation(handle), c.missing);
        EXPECT_EQ(TakeCalls(), Texts{});
        EXPECT_EQ(Said(), c.saidMissing);
        manager->SetServerInterface(table);
        instance->CloseMsgChannel(handle);
        for (size_t i = 0; i < c.results.size(); ++i) {
            SCOPED_TRACE(c.results[i].first);
            result = TRUE;
            handle = Open();
            FireOpened();
            TakeCalls();
            log.Clear();
            result = c.results[i].first;
            EXPECT_EQ(c.operation(handle), c.results[i].second);
            EXPECT_EQ(TakeCalls().size(), 1u);
            EXPECT_EQ(Said(), c.said[i]);
            for (const LogCapture::Line& line : log.Lines()) {
                EXPECT_NE(line.function.find(c.name), std::string::npos) << line.text;
            }
            instance->CloseMsgChannel(handle);
            EXPECT_FALSE(MsgChannelId::FindByHandle(handle)) << "gone in any case";
        }
    }
}

TEST_F(MsgChannel, AnOpeningTakesAnyTrueResult) {
    for (const Bool value : {2, -1}) {
        result = value;
        void* const handle = Open();
        EXPECT_FALSE(instance->CloseMsgChannel(handle)) << "a close takes 1 only";
    }
    result = FALSE;
    EXPECT_EQ(instance->OpenMsgChannel("name"), nullptr);
    EXPECT_EQ(Said(), Texts{"E OpenMsgChannel failed.\n"});
    EXPECT_FALSE(MsgChannelId::FindByHandle(context));
    QSCService_ServerInterface without = table;
    without.OpenMsgChannel = nullptr;
    manager->SetServerInterface(without);
    log.Clear();
    // As often as there are handles: none is left behind.
    for (int time = 0; time < 4096; ++time) EXPECT_EQ(instance->OpenMsgChannel("name"), nullptr);
    EXPECT_EQ(Said(), Texts{});
    manager->SetServerInterface(table);
    result = TRUE;
    EXPECT_TRUE(instance->CloseMsgChannel(Open()));
}

// A map without room gives no handle, and whoever has one keeps it.
TEST_F(MsgChannel, WithoutAHandleNoneIsOpened) {
    std::vector<void*> handles;
    while (void* const handle = instance->OpenMsgChannel("name")) handles.push_back(handle);
    EXPECT_EQ(handles.size(), 4096u);
    EXPECT_EQ(context, nullptr);
    EXPECT_EQ(FireOpened(), FALSE);
    EXPECT_TRUE(instance->CloseMsgChannel(handles.front()));
    handles.front() = Open();
    for (void* const handle : handles) EXPECT_TRUE(instance->CloseMsgChannel(handle));
}

TEST_F(MsgChannel, InfoIsOfAPeerOfOneOfItsOwnOrOfAnyOtherId) {
    void* const handle = Open();
    EXPECT_FALSE(instance->GetMsgChannelInfo(handle, kInfo));
    EXPECT_EQ(Said(), Texts{"W Please wait for OnMsgChannelReady.\n"});
    EXPECT_EQ(TakeCalls(), Texts{});
    FireOpened();
    FirePeer();
    FirePeer();
    const auto ask = [&](QscMsgChannelID id, const Texts& said, const char* call) {
        log.Clear();
        EXPECT_TRUE(instance->GetMsgChannelInfo(id, kInfo));
        EXPECT_EQ(Said(), said);
        EXPECT_EQ(TakeCalls(), Texts{call});
    };
    ask(handle, {"T Get its own msgChannel[0x0xc1] info.\n"}, "info 0x51 0xc1");
    ask(kPeer, {"T Get peer [0x0xc2] info.\n"}, "info 0x51 0xc2");
    ask(Word(0xC3), {"T Get its own msgChannel[0x0xc3] info.\n"}, "info 0x51 0xc3");
    ask(nullptr, {"T Get its own msgChannel[0x(nil)] info.\n"}, "info 0x51 (nil)");
    // Peers stay known after the close, and come before handles.
    FirePeer(handle);
    ask(handle, {WithHandle("T Get peer [0x%p] info.\n", handle)}, WithHandle("info 0x51 %p", handle).c_str());
    EXPECT_TRUE(instance->CloseMsgChannel(handle));
    TakeCalls();
    ask(kPeer, {"T Get peer [0x0xc2] info.\n"}, "info 0x51 0xc2");
}

TEST_F(MsgChannel, SerializedIdsOfAnySizeAreLoggedWithinTheirBuffer) {
    struct Case {
        int size;
        const char* said;
    };
    for (const Case& c : {Case{1, "D Server 0x0x51 id[a].\n"},
                          {8, "D Server 0x0x51 id[abcdefgh].\n"},
                          {0, "D Server 0x0x51 id[].\n"}}) {
        const std::unique_ptr<char[]> buffer(new char[static_cast<size_t>(c.size)]);
        log.Clear();
        EXPECT_EQ(instance->GetUniqueSerializedId(c.size, buffer.get()), TRUE);
        EXPECT_EQ(Said(), Texts{c.said});
    }
    log.Clear();
    EXPECT_EQ(instance->GetUniqueSerializedId(8, nullptr), TRUE);
    EXPECT_EQ(Said(), Texts{"D Server 0x0x51 id[].\n"});
    log.Clear();
    EXPECT_EQ(instance->IsUniqueSerializedIdOwner(nullptr), TRUE);
    EXPECT_EQ(Said(), Texts{"D [] match 0x0x51.\n"});
    EXPECT_EQ(TakeCalls().back(), "owner 0x51 (null)");
}

// A channel stays until somebody closes it, on whatever instance.
TEST_F(MsgChannel, AnInstanceThatIsGoneHearsNothing) {
    Texts unheard;
    RCPtr<MsgInstance> opener(new MsgInstance(manager.Get(), &unheard));
    void* const handle = opener->OpenMsgChannel("name");
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(TakeCalls(), Texts{"open (nil) name"}) << "of no server connection";
    opener = nullptr;
    log.Clear();
    EXPECT_EQ(FireOpened(), FALSE);
    EXPECT_EQ(Said(), Texts{WithHandle("D MsgChannel[0x%p] is opened.\n", handle)});
    FirePeer();
    EXPECT_EQ(unheard, Texts{"instance gone"});
    EXPECT_EQ(manager->TakeHeard(), Texts{});
    EXPECT_TRUE(instance->IsMsgChannelOpened(handle));
    EXPECT_TRUE(instance->CloseMsgChannel(handle));
    EXPECT_EQ(TakeCalls(), Texts{"close 0xc1"});
    EXPECT_FALSE(MsgChannelId::FindByHandle(handle));
}

TEST_F(MsgChannel, WithoutAManagerEverythingIsRefused) {
    Texts heard;
    const RCPtr<MsgManager> owner(new MsgManager);
    owner->SetServerInterface(table);
    RCPtr<MsgManager> shortLived(new MsgManager);
    shortLived->SetServerInterface(table);
    const RCPtr<MsgInstance> orphan(new MsgInstance(shortLived.Get(), &heard));
    void* const handle = orphan->OpenMsgChannel("name");
    ASSERT_NE(handle, nullptr);
    shortLived = nullptr;
    TakeCalls();
    log.Clear();
    EXPECT_EQ(orphan->OpenMsgChannel("name"), nullptr);
    EXPECT_EQ(Said(), Texts{"E Out of memory.\n"});
    char buffer[4];
    EXPECT_FALSE(orphan->SendMsgChannel(handle, nullptr, nullptr, nullptr));
    EXPECT_FALSE(orphan->GetMsgChannelInfo(handle, kInfo));
    EXPECT_EQ(orphan->GetUniqueSerializedIdSize(), 0);
    EXPECT_EQ(orphan->GetUniqueSerializedId(sizeof buffer, buffer), FALSE);
    EXPECT_EQ(orphan->IsUniqueSerializedIdOwner("text"), FALSE);
    EXPECT_EQ(orphan->SwitchToStreamDataMode(), 0);
    EXPECT_EQ(log.Texts(kLogError).size(), 7u);
    EXPECT_EQ(FireOpened(), TRUE) << "the instance is there";
    EXPECT_TRUE(orphan->IsMsgChannelOpened(handle));
    EXPECT_FALSE(orphan->CloseMsgChannel(handle));
    EXPECT_FALSE(MsgChannelId::FindByHandle(handle)) << "gone in any case";
    EXPECT_EQ(TakeCalls(), Texts{});
    EXPECT_EQ(heard, Texts{"opened name"});
}

// The service's callbacks, another user and two closes meet; what each gets is fit for use to the end of its call.
TEST_F(MsgChannel, AClosedChannelMeetsItsCallbacksAndItsUsers) {
    Logger::SetSink(nullptr, nullptr, kLogAlways);  // nobody looks into the lines, which take their time
    for (int round = 0; round < 20; ++round) {
        void* const handle = instance->OpenMsgChannel("name");
        ASSERT_NE(handle, nullptr);
        std::atomic<int> turns{0};
        const auto isThere = [&] { return static_cast<bool>(MsgChannelId::FindByHandle(handle)); };
        std::vector<std::thread> threads;
        threads.emplace_back([&] {
            do FireOpened();
            while (++turns, isThere());
        });
        for (uintptr_t peer = 0; peer < 2; ++peer) {
            threads.emplace_back([&, peer] {
                for (uintptr_t number = 0; isThere(); ++turns) FirePeer(Word(0x100 + (peer + number++) % 8));
            });
        }
        threads.emplace_back([&] {
            do {
                instance->SendMsgChannel(handle, nullptr, nullptr, nullptr);
                instance->GetMsgChannelInfo(handle, kInfo);
                instance->GetMsgChannelInfo(Word(0x100), kInfo);
                instance->IsMsgChannelOpened(handle);
            } while (++turns, isThere());
        });
        while (turns < 8) std::this_thread::yield();
        threads.emplace_back([&] { instance->CloseMsgChannel(handle); });
        instance->CloseMsgChannel(handle);
        for (std::thread& thread : threads) thread.join();
        EXPECT_FALSE(isThere());
        EXPECT_FALSE(instance->IsMsgChannelOpened(handle));
    }
    const Texts heard = manager->TakeHeard();
    EXPECT_NE(std::find(heard.begin(), heard.end(), "opened name"), heard.end());
}

}  // namespace
