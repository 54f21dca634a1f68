#include "standin/qscservice/Transport.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <condition_variable>
#include <functional>
#include <mutex>
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

// Runs a link on a thread and notes the commands of its frames.
class Reader : public LinkClient {
public:
    explicit Reader(Fd socket) : link(std::make_shared<SocketLink>(std::move(socket))) {}
    ~Reader() override { Stop(); }

    void Start() {
        m_thread = std::thread([this] {
            const std::string ended = link->Run(*this);
            const std::lock_guard lock(m_mutex);
            error = ended;
        });
    }

    void Stop() {
        link->Interrupt();
        Join();
    }

    void Join() {
        if (m_thread.joinable()) m_thread.join();
    }

    std::vector<uint32_t> WaitFor(size_t count) {
        std::unique_lock lock(m_mutex);
        m_changed.wait_for(lock, std::chrono::seconds(20), [&] { return m_commands.size() >= count; });
        return m_commands;
    }

    bool OnFrame(const std::shared_ptr<Link>& from, const FrameView& frame, std::span<const uint8_t>) override {
        if (onFrame && !onFrame(*from, frame)) return false;
        const std::lock_guard lock(m_mutex);
        m_commands.push_back(frame.header.command);
        m_sequences.push_back(frame.header.sequence);
        m_changed.notify_all();
        return true;
    }
    void OnWake() override {}
    bool WantsFrames() override { return true; }

    std::vector<uint32_t> Sequences() const {
        const std::lock_guard lock(m_mutex);
        return m_sequences;
    }

    std::shared_ptr<SocketLink> link;
    std::function<bool(Link&, const FrameView&)> onFrame;
    std::string error;

private:
    mutable std::mutex m_mutex;  // guards the fields below
    std::condition_variable m_changed;
    std::vector<uint32_t> m_commands;
    std::vector<uint32_t> m_sequences;
    std::thread m_thread;
};

TEST(SocketLinkTest, NumbersAndCountsFramesAndDeliversThemWhole) {
    auto [here, there] = SocketPair();
    Reader reader(std::move(there));
    reader.Start();
    SocketLink sender(std::move(here));
    Bytes control = MakeFrame(FrameType::Open, {Value(1u)});
    ASSERT_TRUE(sender.Send(control));
    sender.FinishSend(control.size(), true);
    for (const size_t bytes : {size_t{0}, size_t{1}, size_t{300000}, size_t{5000000}, size_t{10}}) {
        Bytes frame = Message(static_cast<uint32_t>(bytes), bytes);
        ASSERT_TRUE(sender.Send(frame));
        sender.FinishSend(frame.size(), true);
    }
    EXPECT_EQ(reader.WaitFor(6), (std::vector<uint32_t>{0, 0, 1, 300000, 5000000, 10}));
    EXPECT_EQ(reader.Sequences(), (std::vector<uint32_t>{1, 2, 3, 4, 5, 6}));
    EXPECT_EQ(sender.SentMessages(), (CommandTally{{0, 1}, {1, 1}, {300000, 1}, {5000000, 1}, {10, 1}}));
    sender.Interrupt();
    reader.Join();
    EXPECT_EQ(reader.error, "");
    EXPECT_FALSE(sender.Send(control));
}

TEST(SocketLinkTest, EndsWithAnErrorOnBytesThatAreNoFrameAndWithNoneOnACutFrame) {
    Bytes behindAGoodOne = Message(2, 8);
    behindAGoodOne.resize(behindAGoodOne.size() + sizeof(FrameHeader), 0xEE);
    Bytes cut = Message(3, 100);
    cut.resize(60);
    struct Case {
        Bytes bytes;
        std::string error;
        size_t delivered;
    };
    for (const Case& c : std::vector<Case>{
             {behindAGoodOne, "frame does not begin with the frame mark", 1}, {cut, "", 0}, {{}, "", 0}}) {
        auto [here, there] = SocketPair();
        Reader reader(std::move(there));
        reader.Start();
        ASSERT_EQ(send(here.Get(), c.bytes.data(), c.bytes.size(), 0), static_cast<ssize_t>(c.bytes.size()));
        here.Reset();
        reader.Join();
        EXPECT_EQ(reader.error, c.error);
        EXPECT_EQ(reader.Sequences().size(), c.delivered);
    }
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
    Bytes control = MakeFrame(FrameType::Close, {Value(1u)});
    EXPECT_TRUE(sender.Send(control));
}

// Each end answers its first frame with far more than the socket holds, from its reading thread.
TEST(SocketLinkTest, TwoEndsThatPushFromTheirReadingThreadsDoNotWaitForEachOther) {
    constexpr uint32_t kFrames = 16;
    auto [left, right] = SocketPair();
    Reader a(std::move(left));
    Reader b(std::move(right));
    const auto push = [](Link& link, const FrameView& frame) {
        if (frame.header.command != 0) return true;
        for (uint32_t i = 1; i <= kFrames; ++i) {
            Bytes answer = Message(i, 1 << 20);
            EXPECT_TRUE(link.Send(answer));
            link.FinishSend(answer.size(), false);
        }
        return true;
    };
    a.onFrame = b.onFrame = push;
    for (Reader* end : {&a, &b}) {
        Bytes first = Message(0, 1);
        ASSERT_TRUE(end->link->Send(first));
    }
    a.Start();
    b.Start();
    EXPECT_EQ(a.WaitFor(kFrames + 1).size(), kFrames + 1);
    EXPECT_EQ(b.WaitFor(kFrames + 1).size(), kFrames + 1);
}

TEST(ListenerTest, RefusesAddressesWithAClearError) {
    struct Case {
        std::string address;
        std::string error;
    };
    const std::string longPath(200, 'p');
    for (const Case& c : std::vector<Case>{
             {"", "the address \"\" begins neither with \"unix:\" nor with \"tcp:\""},
             {"unix:" + longPath, "the socket path \"" + longPath + "\" is too long"},
             {"unix:/no/such/folder/s", "cannot listen at unix:/no/such/folder/s: No such file or directory"},
             {"tcp:127.0.0.1", "the address \"tcp:127.0.0.1\" lacks a port"},
             {"tcp:127.0.0.1:", "the address \"tcp:127.0.0.1:\" has no valid port"},
             {"tcp:127.0.0.1:65536", "the address \"tcp:127.0.0.1:65536\" has no valid port"},
             {"tcp:127.0.0.1:1x", "the address \"tcp:127.0.0.1:1x\" has no valid port"},
             {"tcp:0.0.0.0:0", "the address \"tcp:0.0.0.0:0\" is none of the loopback"},
             {"tcp:localhost:0", "the address \"tcp:localhost:0\" is none of the loopback"},
         }) {
        std::string error;
        EXPECT_EQ(Listener::Open(c.address, &error), nullptr) << c.address;
        EXPECT_EQ(error, c.error);
    }
    std::string error;
    EXPECT_FALSE(ConnectSocket("unix:", &error).IsOpen());
    EXPECT_EQ(error, "the address \"unix:\" lacks a path");
    EXPECT_FALSE(ConnectSocket("unix:/no/such/socket", &error).IsOpen());
    EXPECT_EQ(error, "cannot connect to unix:/no/such/socket: No such file or directory");
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
        struct stat info;
        if (given == "unix:") {
            const std::string path = address.substr(5);
            EXPECT_NE(stat(path.c_str(), &info), 0);
            EXPECT_NE(stat(path.substr(0, path.rfind('/')).c_str(), &info), 0);
        }
    }
}

}  // namespace
