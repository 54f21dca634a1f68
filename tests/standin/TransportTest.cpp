#include "standin/qscservice/Transport.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <filesystem>
#include <future>
#include <map>
#include <thread>

namespace {

using namespace qscservice;

using Bytes = std::vector<uint8_t>;

std::pair<Fd, Fd> SocketPair() {
    int fds[2] = {-1, -1};
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
    return {Fd(fds[0]), Fd(fds[1])};
}

Bytes Message(uint32_t command, size_t bytes) {
    Bytes frame;
    BeginFrame(&frame);
    AppendItem(&frame, ItemRole::Param, {}, Value(Bytes(bytes, 7)));
    FrameHeader header = {};
    header.type = FrameType::Post;
    header.command = command;
    header.itemCount = 1;
    SealFrame(&frame, header);
    return frame;
}

// Reads on a thread of its own, and answers the first frame with far more than the socket holds.
class PushingEnd : private LinkClient {
public:
    static constexpr uint32_t kAnswers = 16;

    explicit PushingEnd(Fd socket) : link(std::make_shared<SocketLink>(std::move(socket))) {}
    ~PushingEnd() override {
        link->Interrupt();
        m_thread.join();
    }

    void Start() {
        m_thread = std::thread([this] { link->Run(*this); });
    }

    const std::shared_ptr<SocketLink> link;
    std::promise<void> hasAll;

private:
    bool OnFrame(const std::shared_ptr<Link>& from, const FrameView& frame, std::span<const uint8_t>) override {
        EXPECT_EQ(frame.header.command, m_received++);
        EXPECT_EQ(frame.header.sequence, m_received);
        for (uint32_t i = 1; m_received == 1 && i <= kAnswers; ++i) {
            Bytes answer = Message(i, 1 << 20);
            EXPECT_TRUE(from->Send(answer));
            from->FinishSend(answer.size(), false);
        }
        if (m_received == kAnswers + 1) hasAll.set_value();
        return true;
    }
    void OnWake() override {}
    bool WantsFrames() override { return true; }

    uint32_t m_received = 0;
    std::thread m_thread;
};

TEST(SocketLinkTest, TwoEndsThatPushFromTheirReadingThreadsDoNotWaitForEachOther) {
    auto [left, right] = SocketPair();
    PushingEnd a(std::move(left)), b(std::move(right));
    for (PushingEnd* end : {&a, &b}) {
        Bytes first = Message(0, 1);
        ASSERT_TRUE(end->link->Send(first));
        end->Start();
    }
    a.hasAll.get_future().wait();
    b.hasAll.get_future().wait();
    EXPECT_EQ(a.link->SentMessages().size(), PushingEnd::kAnswers + 1);
}

TEST(SocketLinkTest, AcceptsNoMoreMessagesThanTheLimitThatNobodyTakes) {
    auto [here, there] = SocketPair();
    SocketLink sender(std::move(here));
    Bytes frame = Message(1, 16 << 20);
    size_t accepted = 0;
    while (accepted < 10 && sender.Send(frame)) ++accepted;
    EXPECT_GE(accepted, 4u);
    EXPECT_LE(accepted, 5u);
    EXPECT_EQ(sender.SentMessages(), (CommandTally{{1, accepted}}));
    Bytes control = MakeFrame(FrameType::Close, {1u});
    EXPECT_TRUE(sender.Send(control));
}

TEST(ListenerTest, RefusesAddressesWithAClearError) {
    const std::string longPath(200, 'p');
    for (const auto& [address, expected] : std::map<std::string, std::string>{
             {"", "the address \"\" begins neither with \"unix:\" nor with \"tcp:\""},
             {"unix:" + longPath, "the socket path \"" + longPath + "\" is too long"},
             {"unix:/no/such/folder/s", "cannot listen at unix:/no/such/folder/s: No such file or directory"},
             {"tcp:127.0.0.1", "the address \"tcp:127.0.0.1\" lacks a port"},
             {"tcp:127.0.0.1:65536", "the address \"tcp:127.0.0.1:65536\" has no valid port"},
             {"tcp:0.0.0.0:0", "the address \"tcp:0.0.0.0:0\" is none of the loopback"}}) {
        std::string error;
        EXPECT_EQ(Listener::Open(address, &error), nullptr) << address;
        EXPECT_EQ(error, expected);
    }
}

TEST(ListenerTest, MakesUpAnAddressAcceptsThereAndLeavesNothingBehind) {
    for (const std::string given : {"unix:", "tcp:", "tcp:127.0.0.1:0"}) {
        std::string error;
        std::shared_ptr<Listener> listener = Listener::Open(given, &error);
        ASSERT_NE(listener, nullptr) << error;
        const std::string address = listener->Address();
        const Fd client = ConnectSocket(address, &error);
        ASSERT_TRUE(client.IsOpen()) << error;
        EXPECT_TRUE(listener->Accept(&error).IsOpen()) << error;
        std::thread waiting([&] { EXPECT_FALSE(listener->Accept(&error).IsOpen()); });
        listener->Stop();
        waiting.join();
        EXPECT_EQ(error, "");
        listener.reset();
        EXPECT_FALSE(ConnectSocket(address, &error).IsOpen());
        const std::filesystem::path path = address.substr(5);
        EXPECT_FALSE(given == "unix:" && std::filesystem::exists(path.parent_path()));
    }
}

}  // namespace
