#include "logging/SocketWriter.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>

#include <cctype>
#include <optional>

#include "logging/LogMessageCache.h"
#include "tests/logging/LogSupport.h"
#include "tests/support/Pattern.h"

namespace {

constexpr int kPatienceMS = 10000;

// A syslog collector on that port of this machine, or on a free one.
class Collector {
public:
    explicit Collector(uint16_t wanted = 0) : fd(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(wanted);
        socklen_t length = sizeof address;
        EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        EXPECT_EQ(getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length), 0);
        port = ntohs(address.sin_port);
    }
    Collector(const Collector&) = delete;
    Collector& operator=(const Collector&) = delete;
    ~Collector() { close(fd); }

    // The next datagram; empty if none comes.
    std::string Receive(int waitMS = kPatienceMS) const {
        pollfd ready{fd, POLLIN, 0};
        if (poll(&ready, 1, waitMS) != 1) return {};
        std::string text(70000, '\0');
        const ssize_t length = recv(fd, text.data(), text.size(), 0);
        text.resize(length < 0 ? 0 : static_cast<size_t>(length));
        return text;
    }

    const int fd;
    uint16_t port = 0;
};

// The header of RFC 5424 up to MSGID, by its grammar, and what follows.
struct Frame {
    int pri;
    int version;
    std::string timestamp, host, appName, procId, msgId, rest;
};

std::optional<Frame> ParseFrame(const std::string& datagram) {
    const char* at = datagram.c_str();
    const auto number = [&](int maxDigits) {
        int value = -1;
        for (int digits = 0; digits < maxDigits && std::isdigit(static_cast<unsigned char>(*at)); ++digits) {
            value = std::max(value, 0) * 10 + (*at++ - '0');
        }
        return value;
    };
    const auto word = [&](size_t limit, std::string& text) {
        while (*at > ' ' && *at < 127 && text.size() <= limit) text += *at++;
        return !text.empty() && text.size() <= limit && *at++ == ' ';
    };
    Frame frame{};
    if (*at++ != '<') return {};
    frame.pri = number(3);
    if (frame.pri < 0 || frame.pri > 191 || *at++ != '>') return {};
    frame.version = number(3);
    if (frame.version < 1 || *at++ != ' ') return {};
    if (!word(32, frame.timestamp) || !word(255, frame.host) || !word(48, frame.appName) || !word(128, frame.procId) ||
        !word(32, frame.msgId)) {
        return {};
    }
    frame.rest = at;
    return frame;
}

// "YYYY-MM-DDTHH:MM:SS.mmmZ" as a time; -1 for any other form.
time_t ParseTimestamp(const std::string& text) {
    tm parts{};
    const char* const rest = strptime(text.c_str(), "%Y-%m-%dT%H:%M:%S", &parts);
    const bool whole = text.size() == 24 && rest && Matches(rest, R"(\.\d{3}Z)");
    return whole ? timegm(&parts) : -1;
}

class SocketWriterTest : public LoggingTest {
protected:
    RCPtr<LogWriter> AddSocketWriter(const RCPtr<Logger>& logger, uint16_t port) {
        const RCPtr<LogWriter> writer = logger->AddWriter(kSocketWriter);
        EXPECT_TRUE(writer->SetProperty("remoteAddress", "127.0.0.1"));
        EXPECT_TRUE(writer->SetProperty("remotePort", std::to_string(port)));
        return writer;
    }
    // A writer without a logger.
    static RCPtr<SocketWriter> MakeWriter(uint16_t port) {
        const RCPtr<SocketWriter> writer(new SocketWriter);
        writer->SetProperty("remoteAddress", "127.0.0.1");
        writer->SetProperty("remotePort", std::to_string(port));
        return writer;
    }
    static RCPtr<LogMessage> Message(const std::string& text) {
        return RCPtr<LogMessageManager>(new LogMessageManager)->NewMessage(kLogInfo, text.c_str(), -1);
    }
    void SkipHeader() {
        for (int i = 0; i < 4; ++i) collector.Receive();
    }

    Collector collector;
};

TEST_F(SocketWriterTest, EachLineIsADatagramInTheFrameOfSyslog) {
    char host[256] = "";
    gethostname(host, sizeof host - 1);
    for (const auto& [component, appName] : {std::pair{"UsbRedirectionClient", "UsbRedirectionClient"}, {"", "-"}}) {
        const Collector own;
        const RCPtr<Logger> logger = MakeLogger(kLogInfo, component);
        AddSocketWriter(logger, own.port)->SetFlushPeriod(1);
        ASSERT_TRUE(logger->Start());
        const time_t before = time(nullptr);
        Logger::Log("void Foo::Bar()", kLogError, "text");
        for (int i = 0; i < 4; ++i) own.Receive();  // the header
        const std::string datagram = own.Receive();
        const std::optional<Frame> frame = ParseFrame(datagram);
        ASSERT_TRUE(frame) << datagram;
        EXPECT_TRUE(frame->pri == 1 && frame->version == 1);
        EXPECT_GE(ParseTimestamp(frame->timestamp), before) << frame->timestamp;
        EXPECT_LE(ParseTimestamp(frame->timestamp), time(nullptr) + 1);  // its clock is the coarser one
        EXPECT_EQ(frame->host, host);
        EXPECT_EQ(frame->appName, appName);
        EXPECT_EQ(frame->procId + frame->msgId, "--");
        EXPECT_EQ(frame->rest, "text\n");
        LoggerManager::Shutdown();
    }
}

TEST_F(SocketWriterTest, BehindAFileTheDatagramIsTheLineOfTheFile) {
    TempFolder folder;
    const RCPtr<Logger> logger = MakeLogger();
    const RCPtr<FileWriter> file = AddFileWriter(logger, folder.path);
    file->SetBuffering(false);
    AddSocketWriter(logger, collector.port)->SetBuffering(false);
    ASSERT_TRUE(logger->Start());
    SkipHeader();
    const size_t before = ReadText(file->GetCurrentPath()).size();
    Logger::Log("Both()", kLogInfo, "one line");
    const std::string datagram = collector.Receive();
    EXPECT_EQ(datagram, ReadText(file->GetCurrentPath()).substr(before));
    EXPECT_FALSE(ParseFrame(datagram));
    LoggerManager::Shutdown();
}

TEST_F(SocketWriterTest, ItsLastLineIsSentAtTheEnd) {
    const RCPtr<Logger> logger = MakeLogger();
    AddSocketWriter(logger, collector.port)->SetFlushPeriod(3600000);
    ASSERT_TRUE(logger->Start());
    Logger::Log("Last()", kLogInfo, "queued");
    LoggerManager::Shutdown();
    SkipHeader();
    EXPECT_EQ(ParseFrame(collector.Receive())->rest, "queued\n");
    std::string last;
    for (std::string next = collector.Receive(0); !next.empty(); next = collector.Receive(0)) last = next;
    EXPECT_EQ(ParseFrame(last)->rest, "*** LOG FILE COMPLETE ***\n");
}

TEST_F(SocketWriterTest, ACollectorThatIsGoneLosesOnlyItsOwnLines) {
    const uint16_t port = std::make_unique<Collector>()->port;
    const RCPtr<SocketWriter> writer = MakeWriter(port);
    ASSERT_TRUE(writer->Start()) << "a datagram socket needs no listener";
    const RCPtr<LogMessage> line = Message("to nobody");
    bool refused = false;
    for (int i = 0; i < 100 && !refused; ++i) refused = !writer->WriteMessage(line);
    EXPECT_TRUE(refused) << "the peer's answer shows at a later line";
    // The next line is sent as usual.
    const Collector again(port);
    bool sent = false;
    for (int i = 0; i < 3 && !sent; ++i) sent = writer->WriteMessage(line);
    EXPECT_TRUE(sent);
    EXPECT_EQ(again.Receive(), "to nobody\n");
    writer->Stop();
}

TEST_F(SocketWriterTest, ALineTooLongForADatagramFailsAlone) {
    const RCPtr<SocketWriter> writer = MakeWriter(collector.port);
    EXPECT_FALSE(writer->WriteMessage(Message("not started")));
    ASSERT_TRUE(writer->Start());
    EXPECT_FALSE(writer->WriteMessage(Message(std::string(70000, 'x'))));
    const std::string large(60000, 'y');
    EXPECT_TRUE(writer->WriteMessage(Message(large)));
    EXPECT_EQ(collector.Receive(), large + "\n");
    writer->Stop();
}

TEST_F(SocketWriterTest, AnAddressThatCantBeResolvedFailsTheStart) {
    const RCPtr<Logger> logger = MakeLogger();
    AddSocketWriter(logger, collector.port)->SetProperty("remoteAddress", "no.such.host.invalid.");
    EXPECT_FALSE(logger->Start());
}

TEST_F(SocketWriterTest, PropertiesAreSetBeforeTheStart) {
    const RCPtr<Logger> logger = MakeLogger();
    const RCPtr<LogWriter> writer = logger->AddWriter(kSocketWriter);
    std::string value;
    EXPECT_TRUE(writer->GetProperty("remotePort", value));
    EXPECT_EQ(value, "514");
    EXPECT_TRUE(writer->GetProperty("remoteAddress", value));
    EXPECT_EQ(value, "localhost");
    for (const auto& [text, port] : {std::pair{"0x203", "515"}, {"65536", "0"}, {"010", "8"}, {"70000", "4464"}}) {
        EXPECT_TRUE(writer->SetProperty("REMOTEPORT", text));
        writer->GetProperty("remoteport", value);
        EXPECT_EQ(value, port);
    }
    EXPECT_FALSE(writer->SetProperty("", "1") || writer->SetProperty("remotePort", "") ||
                 writer->GetProperty("", value));
    EXPECT_TRUE(writer->SetProperty("unknown", "1") && writer->GetProperty("unknown", value));
    ASSERT_TRUE(logger->Start());
    EXPECT_FALSE(writer->SetProperty("remotePort", "515") || writer->SetProperty("unknown", "1"));
}

}  // namespace
