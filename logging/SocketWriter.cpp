#include "logging/SocketWriter.h"

#include <netinet/in.h>
#include <strings.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdlib>
#include <ctime>

#include "runtime/StringUtils.h"

namespace {

constexpr char kNil[] = "-";
constexpr size_t kHostNameSize = 65;

}  // namespace

SocketWriter::SocketWriter() : LogWriter(kSocketWriter) {
    SetBuffering(true);
}

bool SocketWriter::SetProperty(const std::string& key, const std::string& value) {
    KxMutexGuard guard(LoggerLock());
    if (key.empty() || value.empty() || (logger && logger->IsStarted())) return false;
    if (strcasecmp(key.c_str(), "remoteAddress") == 0) {
        remoteAddress = value;
    } else if (strcasecmp(key.c_str(), "remotePort") == 0) {
        remotePort = static_cast<uint16_t>(std::strtoul(value.c_str(), nullptr, 0));
    }
    return true;
}

bool SocketWriter::GetProperty(const std::string& key, std::string& value) {
    KxMutexGuard guard(LoggerLock());
    if (key.empty()) return false;
    if (strcasecmp(key.c_str(), "remoteAddress") == 0) {
        value = remoteAddress;
    } else if (strcasecmp(key.c_str(), "remotePort") == 0) {
        value = StringUtils::Format("%u", static_cast<unsigned>(remotePort));
    }
    return true;
}

bool SocketWriter::Open() {
    socket = std::make_unique<KxSocket>();
    if (!socket->Init(SOCK_DGRAM, IPPROTO_UDP)) {
        socket.reset();
        return false;
    }
    if (!socket->Connect(remoteAddress, remotePort)) return false;
    if (logger) appName = logger->GetComponentName();
    if (appName.empty()) appName = kNil;
    return true;
}

// PRI 1 is facility 0, severity 1 for every line. PROCID and MSGID are nil, and no structured data follows.
int SocketWriter::FormatPrefix(char* buffer, int size, const char*, int) {
    timeval now;
    tm utc;
    if (gettimeofday(&now, nullptr) != 0 || !gmtime_r(&now.tv_sec, &utc)) return 0;
    char host[kHostNameSize];
    const bool named = gethostname(host, sizeof host) == 0;
    host[kHostNameSize - 1] = '\0';
    if (!named || host[0] == '\0') StringUtils::CopyString(host, kNil, 1);
    return StringUtils::Snprintf(buffer, size, "<1>1 %04d-%02d-%02dT%02d:%02d:%02d.%03dZ %s %s - - ",
                                 utc.tm_year + 1900, utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec,
                                 static_cast<int>(now.tv_usec / 1000), host, appName.c_str());
}

bool SocketWriter::WriteMessage(const RCPtr<LogMessage>& message) {
    if (!IsStarted()) return false;
    if (!socket) return true;
    return socket->SendAll(message->Text(), message->Length()) == message->Length();
}

bool SocketWriter::Close() {
    socket.reset();
    return true;
}
