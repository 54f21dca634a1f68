#include "logging/SocketWriter.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>

#include <cctype>
#include <optional>

#include "logging/LogMessageCache.h"
#include "tests/logging/LogSupport.h"

namespace {

constexpr int kPatienceMS = 10000;

// A syslog collector on a free port of this machine.
class Collector {
public:
    Collector() : fd(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
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
    int milliseconds = -1;
    char end = 0;
    if (text.size() != 24 ||
        std::sscanf(text.c_str(), "%4d-%2d-%2dT%2d:%2d:%2d.%3d%c", &parts.tm_year, &parts.tm_mon, &parts.tm_mday,
                    &parts.tm_hour, &parts.tm_min, &parts.tm_sec, &milliseconds, &end) != 8 ||
        end != 'Z' || parts.tm_mon < 1 || parts.tm_mon > 12) {
        return -1;
    }
    parts.tm_year -= 1900;
    parts.tm_mon -= 1;
    return timegm(&parts);
}

class SocketWriterTest : public LoggingTest {
protected:
    RCPtr<LogWriter> AddSocketWriter(const RCPtr<Logger>& logger, uint16_t port) {
        const RCPtr<LogWriter> writer = logger->AddWriter(kSocketWriter);
        EXPECT_TRUE(writer->SetProperty("remoteAddress", "127.0.0.1"));
        EXPECT_TRUE(writer->SetProperty("REMOTEPORT", std::to_string(port)));
        return writer;
    }
    void SkipHeader() {
        for (int i = 0; i < 4; ++i) collector.Receive();
    }

    Collector collector;
};

TEST_F(SocketWriterTest, EachLineIsADatagramInTheFrameOfSyslog) {
    const RCPtr<Logger> logger = MakeLogger(kLogInfo, "UsbRedirectionClient");
    const RCPtr<LogWriter> writer = AddSocketWriter(logger, collector.port);
    writer->SetFlushPeriod(1);
    EXPECT_TRUE(writer->IsBuffering());
    ASSERT_TRUE(logger->Start());
    SkipHeader();
    char host[256] = "";
    gethostname(host, sizeof host - 1);
    for (const int level : {kLogAlways, kLogError, kLogInfo}) {
        const time_t before = time(nullptr);
        Logger::Log("void Foo::Bar()", level, "text of level %d", level);
        const std::string datagram = collector.Receive();
        const std::optional<Frame> frame = ParseFrame(datagram);
        ASSERT_TRUE(frame) << datagram;
        EXPECT_EQ(frame->pri, 1);
        EXPECT_EQ(frame->version, 1);
        EXPECT_GE(ParseTimestamp(frame->timestamp), before) << frame->timestamp;
        EXPECT_LE(ParseTimestamp(frame->timestamp), time(nullptr) + 1);  // its clock is the coarser one
        EXPECT_EQ(frame->host, host);
        EXPECT_EQ(frame->appName, "UsbRedirectionClient");
        EXPECT_EQ(frame->procId, "-");
        EXPECT_EQ(frame->msgId, "-");
        EXPECT_EQ(frame->rest, "text of level " + std::to_string(level) + "\n");
    }
}

TEST_F(SocketWriterTest, ALoggerWithoutAComponentIsNil) {
    const RCPtr<Logger> logger = MakeLogger(kLogInfo, "");
    AddSocketWriter(logger, collector.port)->SetBuffering(false);
    ASSERT_TRUE(logger->Start());
    const std::optional<Frame> frame = ParseFrame(collector.Receive());
    ASSERT_TRUE(frame);
    EXPECT_EQ(frame->appName, "-");
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
    const RCPtr<LogWriter> writer = AddSocketWriter(logger, collector.port);
    writer->SetFlushPeriod(3600000);
    ASSERT_TRUE(logger->Start());
    Logger::Log("Last()", kLogInfo, "queued");
    LoggerManager::Shutdown();
    SkipHeader();
    EXPECT_EQ(ParseFrame(collector.Receive())->rest, "queued\n");
    std::string last;
    for (std::string next = collector.Receive(0); !next.empty(); next = collector.Receive(0)) last = next;
    EXPECT_EQ(ParseFrame(last)->rest, "*** LOG FILE COMPLETE ***\n");
}

TEST_F(SocketWriterTest, ADisabledWriterSendsNothingUntilItIsEnabledAgain) {
    const RCPtr<Logger> logger = MakeLogger();
    const RCPtr<LogWriter> writer = AddSocketWriter(logger, collector.port);
    writer->SetFlushPeriod(3600000);
    ASSERT_TRUE(logger->Start());
    Logger::Log("Flow()", kLogInfo, "before");
    writer->SetEnabled(false);
    SkipHeader();
    EXPECT_EQ(ParseFrame(collector.Receive())->rest, "before\n") << "what is queued goes first";
    Logger::Log("Flow()", kLogInfo, "lost");
    writer->SetEnabled(true);
    Logger::Log("Flow()", kLogInfo, "after");
    writer->Flush();
    EXPECT_EQ(ParseFrame(collector.Receive())->rest, "after\n");
    EXPECT_EQ(collector.Receive(), "\n******* Dropped 1 messages *******\n\n");
}

TEST_F(SocketWriterTest, ACollectorThatIsGoneLosesOnlyItsOwnLines) {
    uint16_t port;
    {
        const Collector gone;
        port = gone.port;
    }
    const RCPtr<LogMessageManager> pool(new LogMessageManager);
    SocketWriter writer;
    writer.SetProperty("remoteAddress", "127.0.0.1");
    writer.SetProperty("remotePort", std::to_string(port));
    ASSERT_TRUE(writer.Start()) << "a datagram socket needs no listener";
    const RCPtr<LogMessage> line = pool->NewMessage(kLogInfo, "to nobody", -1);
    bool refused = false;
    for (int i = 0; i < 100 && !refused; ++i) refused = !writer.WriteMessage(line);
    EXPECT_TRUE(refused) << "the peer's answer shows at a later line";
    // The next line is sent as usual.
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    const int again = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (bind(again, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) {
        bool sent = false;
        for (int i = 0; i < 3 && !sent; ++i) sent = writer.WriteMessage(line);
        EXPECT_TRUE(sent);
        char text[64] = "";
        EXPECT_EQ(recv(again, text, sizeof text - 1, MSG_DONTWAIT), 10);
        EXPECT_STREQ(text, "to nobody\n");
    }
    close(again);
    writer.Stop();
}

TEST_F(SocketWriterTest, ALineTooLongForADatagramFailsAlone) {
    const RCPtr<LogMessageManager> pool(new LogMessageManager);
    SocketWriter writer;
    writer.SetProperty("remoteAddress", "127.0.0.1");
    writer.SetProperty("remotePort", std::to_string(collector.port));
    EXPECT_FALSE(writer.WriteMessage(pool->NewMessage(kLogInfo, "not started", -1)));
    ASSERT_TRUE(writer.Start());
    EXPECT_FALSE(writer.WriteMessage(pool->NewMessage(kLogInfo, std::string(70000, 'x').c_str(), -1)));
    const std::string large(60000, 'y');
    EXPECT_TRUE(writer.WriteMessage(pool->NewMessage(kLogInfo, large.c_str(), -1)));
    EXPECT_EQ(collector.Receive(), large + "\n");
    writer.Stop();
}

TEST_F(SocketWriterTest, AnAddressThatCantBeResolvedFailsTheStart) {
    const RCPtr<Logger> logger = MakeLogger();
    const RCPtr<LogWriter> writer = AddSocketWriter(logger, collector.port);
    writer->SetProperty("remoteAddress", "no.such.host.invalid.");
    EXPECT_FALSE(logger->Start());
    logger->AddWriter(kStdOutWriter);
    EXPECT_TRUE(logger->Start()) << "the other one is enough";
    EXPECT_FALSE(writer->IsStarted());
}

TEST_F(SocketWriterTest, PropertiesAreSetBeforeTheStart) {
    SocketWriter writer;
    std::string value;
    EXPECT_TRUE(writer.GetProperty("remotePort", value));
    EXPECT_EQ(value, "514");
    EXPECT_TRUE(writer.GetProperty("remoteAddress", value));
    EXPECT_EQ(value, "localhost");
    for (const auto& [text, port] : {std::pair{"0x203", "515"}, {"65536", "0"}, {"010", "8"}, {"70000", "4464"}}) {
        EXPECT_TRUE(writer.SetProperty("remotePort", text));
        writer.GetProperty("remoteport", value);
        EXPECT_EQ(value, port);
    }
    EXPECT_FALSE(writer.SetProperty("", "1") || writer.SetProperty("remotePort", "") || writer.GetProperty("", value));
    EXPECT_TRUE(writer.SetProperty("unknown", "1"));
    value = "untouched";
    EXPECT_TRUE(writer.GetProperty("unknown", value));
    EXPECT_EQ(value, "untouched");

    const RCPtr<Logger> logger = MakeLogger();
    const RCPtr<LogWriter> started = AddSocketWriter(logger, collector.port);
    ASSERT_TRUE(logger->Start());
    EXPECT_FALSE(started->SetProperty("remotePort", "515"));
    EXPECT_FALSE(started->SetProperty("unknown", "1"));
}

}  // namespace
