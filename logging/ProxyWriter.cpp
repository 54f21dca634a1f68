#include "logging/ProxyWriter.h"

#include <cstring>

#include "runtime/StringUtils.h"

namespace {

constexpr char kMark[] = "@PROXY/";
constexpr size_t kMarkLength = sizeof kMark - 1;

}  // namespace

bool ProxyWriter::SetProxyFunction(ProxyFunction function) {
    KxMutexGuard guard(LoggerLock());
    if (IsStarted()) return false;
    proxyFunction = function;
    return true;
}

int ProxyWriter::FormatPrefix(char* buffer, int size, const char* function, int level) {
    return StringUtils::Snprintf(buffer, size, "%s%c%s%c", kMark, static_cast<char>('0' + level),
                                 function ? function : "", '/');
}

// The function text runs up to the next "/" and is ended there for the length of the call: other writers share the
// text.
bool ProxyWriter::WriteMessage(const RCPtr<LogMessage>& message) {
    if (!proxyFunction || message->Length() == 0) return false;
    char* const text = message->GetBuffer(nullptr, false);
    if (std::strncmp(text, kMark, kMarkLength) != 0) {
        proxyFunction("", kLogAlways, "%s", text + std::strspn(text, " "));
        return true;
    }
    if (static_cast<size_t>(message->Length()) <= kMarkLength) return false;
    char* const function = text + kMarkLength + 1;
    char* const end = std::strchr(function, '/');
    if (!end) return false;
    *end = '\0';
    proxyFunction(function, text[kMarkLength] - '0', "%s", end + 1);
    *end = '/';
    return true;
}

bool ProxyWriter::Close() {
    proxyFunction = nullptr;
    return true;
}
