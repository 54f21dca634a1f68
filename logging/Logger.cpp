#include "logging/Logger.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <memory>
#include <mutex>
#include <utility>

#include "logging/ConfigSettingsReader.h"
#include "logging/FastFormat.h"
#include "logging/FileWriter.h"
#include "logging/LogMessageCache.h"
#include "logging/LoggerManager.h"
#include "logging/ProxyWriter.h"
#include "logging/SocketWriter.h"
#include "logging/StreamWriters.h"
#include "runtime/ProcessUtils.h"
#include "runtime/StringUtils.h"

namespace {

constexpr int kPrefixRoom = 512;  // made if the pool's own lines have filled a message
constexpr const char* kBuildType = sizeof(void*) == 4 ? "release/32-bit" : "release/64-bit";

// Nesting of log calls. Changed and read under the log lock, where it counts the calls of one thread.
std::atomic<uint32_t> gLogDepth{0};

class DepthScope {
public:
    DepthScope() : outer(gLogDepth.load(std::memory_order_relaxed)) {
        gLogDepth.store(outer + 1, std::memory_order_relaxed);
    }
    ~DepthScope() { gLogDepth.store(outer, std::memory_order_relaxed); }
    bool IsNested() const { return outer > 0; }

private:
    const uint32_t outer;
};

struct SinkState {
    std::recursive_mutex lock;  // guards the fields; held across the sink, so that SetSink can wait for it
    LogSink sink = nullptr;
    void* context = nullptr;
    bool inSink = false;
};

// Never destroyed: static objects log in their destructors.
SinkState& Sink() {
    static SinkState* const state = new SinkState;
    return *state;
}

// The level of the sink, -1 without one, and that of the default logger; gLogLevel is the larger of the two.
std::atomic<int32_t> sinkLevel{-1};
std::atomic<int32_t> defaultLevel{0};

bool ShowSink(const char* function, int level, const char* format, va_list args) __attribute__((format(printf, 3, 0)));

// False inside the sink.
bool ShowSink(const char* function, int level, const char* format, va_list args) {
    if (level > sinkLevel.load(std::memory_order_relaxed)) return true;
    SinkState& state = Sink();
    std::lock_guard guard(state.lock);
    if (state.inSink) return false;
    if (!state.sink) return true;
    va_list again;
    va_copy(again, args);
    const std::string text = StringUtils::FormatV(format, again);
    va_end(again);
    state.inSink = true;
    state.sink(state.context, function, level, text.c_str());
    state.inSink = false;
    return true;
}

RCPtr<LogWriter> MakeWriter(int type) {
    switch (type) {
        case kDebugWriter:
            return new DebugWriter;
        case kFileWriter:
            return new FileWriter;
        case kProxyWriter:
            return new ProxyWriter;
        case kSocketWriter:
            return new SocketWriter;
        case kStdOutWriter:
            return new StdOutWriter;
        case kStdErrWriter:
            return new StdErrWriter;
        default:
            return {};
    }
}

}  // namespace

Logger::Logger(const std::string& name, const std::string& componentName)
    : name(name), componentName(componentName), messageManager(LoggerManager::GetInstance()->messageManager) {}

Logger::~Logger() = default;

// What a line says, formatted ahead of the log lock where that can be done on the stack.
class Logger::LineText {
public:
    LineText(const char* format, va_list args) : format(format) {
        va_copy(this->args, args);
        va_list now;
        va_copy(now, args);
        length = FastFormat(text, sizeof text, format, now);
        va_end(now);
    }
    ~LineText() { va_end(args); }
    LineText(const LineText&) = delete;
    LineText& operator=(const LineText&) = delete;

    void AppendTo(LogMessage& message) {
        if (length >= 0) {
            message.Append(text, length, true);
            return;
        }
        va_list now;
        va_copy(now, args);
        message.Format(format, now, true);
        va_end(now);
    }

private:
    const char* const format;
    va_list args;
    char text[480];
    int length;
};

// Writes on logger, null for the default one, unless this is a log call within a log call.
template <typename Write>
void Logger::LogOn(Logger* logger, Write write) {
    LoggerManager* const manager = LoggerManager::Existing();
    if (!manager) return;
    KxMutexGuard guard(LoggerLock());
    const RCPtr<Logger> target(logger ? logger : manager->defaultLogger.Get());  // goes ahead of the lock
    const DepthScope depth;
    if (!depth.IsNested() && target) write(*target);
}

void Logger::Log(const char* function, int level, const char* format, ...) {
    va_list args;
    va_start(args, format);
    LogV(function, level, format, args);
    va_end(args);
}

void Logger::LogV(const char* function, int level, const char* format, va_list args) {
    if (!ShowSink(function, level, format, args)) return;
    LineText text(format, args);
    LogOn(nullptr, [&](Logger& logger) { logger.WriteLineTo(nullptr, function, level, text); });
}

bool Logger::SinkTakes(int level) {
    return level <= sinkLevel.load(std::memory_order_relaxed);
}

void Logger::LogHex(const char* function, int level, const void* data, int length) {
    LogOn(nullptr, [&](Logger& logger) { logger.WriteHex(function, level, data, length); });
}

void Logger::LogLine(const char* function, int level, const char* format, ...) {
    va_list args;
    va_start(args, format);
    LogLineV(this, function, level, format, args);
    va_end(args);
}

void Logger::LogLineV(Logger* logger, const char* function, int level, const char* format, va_list args) {
    if (!ShowSink(function, level, format, args) || !logger) return;
    LineText text(format, args);
    LogOn(logger, [&](Logger& target) { target.WriteLineTo(nullptr, function, level, text); });
}

void Logger::LogHexLine(const char* function, int level, const void* data, int length) {
    LogOn(this, [&](Logger& logger) { logger.WriteHex(function, level, data, length); });
}

void Logger::LogToWriter(const char* function, int level, int writerType, const char* format, ...) {
    va_list args;
    va_start(args, format);
    LineText text(format, args);
    va_end(args);
    const std::set<int> types{writerType};
    LogOn(this, [&](Logger& logger) { logger.WriteLineTo(&types, function, level, text); });
}

void Logger::LogToWriters(const char* function, int level, const std::set<int>& writerTypes, const char* format, ...) {
    va_list args;
    va_start(args, format);
    LineText text(format, args);
    va_end(args);
    LogOn(this, [&](Logger& logger) { logger.WriteLineTo(&writerTypes, function, level, text); });
}

void Logger::WriteLineTo(const std::set<int>* types, const char* function, int lineLevel, LineText& text) {
    if (!Accepts(lineLevel)) return;
    WriteTo(types, function, lineLevel, [&](LogMessage& message, int) { text.AppendTo(message); });
}

void Logger::WriteText(const char* function, const char* format, ...) {
    va_list args;
    va_start(args, format);
    LineText text(format, args);
    va_end(args);
    WriteLineTo(nullptr, function, kLogAlways, text);
}

void Logger::WriteHex(const char* function, int lineLevel, const void* data, int length) {
    if (!Accepts(lineLevel)) return;
    WriteTo(nullptr, function, lineLevel, [&](LogMessage& message, int indent) {
        const unsigned size = StringUtils::HexDump(nullptr, 0, data, length, 16, -indent);
        message.Reserve(message.Length() + static_cast<int>(size) + 2, 0);
        int room;
        char* const end = message.GetBuffer(&room, true);
        const unsigned written =
            room > 1 ? StringUtils::HexDump(end, static_cast<unsigned>(room - 1), data, length, 16, -indent) : 0;
        message.SetLength(static_cast<int>(written), true);
        message.Append("", 0, true);
    });
}

// The first started writer lays the line out, all others get the same text. append is given the message behind its
// prefix, and the width of that prefix, without a separator line.
template <typename Append>
void Logger::WriteTo(const std::set<int>* types, const char* function, int lineLevel, Append append) {
    const auto isMeant = [types](const auto& entry) {
        return (!types || types->count(entry.first) != 0) && entry.second->IsStarted();
    };
    auto entry = std::find_if(writers.begin(), writers.end(), isMeant);
    if (entry == writers.end()) return;
    RCPtr<LogMessage> message = NewMessage(lineLevel, nullptr, 0);
    if (!message) return;
    if (message->Length() > 0) message->Reserve(message->Length() + kPrefixRoom, 0);
    int room;
    char* const prefix = message->GetBuffer(&room, true);
    const int width = entry->second->FormatPrefix(prefix, room, function, lineLevel);
    message->SetLength(width, true);
    const char* const lineBreak = static_cast<const char*>(std::memchr(prefix, '\n', static_cast<size_t>(width)));
    append(*message, lineBreak ? static_cast<int>(prefix + width - lineBreak) - 1 : width);
    for (auto next = entry;; entry = next) {
        next = std::find_if(std::next(entry), writers.end(), isMeant);
        if (next == writers.end()) break;
        entry->second->Write(message);
    }
    entry->second->Write(std::move(message));  // the last one needs no reference of its own
}

bool Logger::SetLevel(int newLevel) {
    KxMutexGuard guard(LoggerLock());
    if (IsStarted()) return false;
    level.store(newLevel, std::memory_order_relaxed);
    return true;
}

bool Logger::SetStartAllowed(bool allowed) {
    KxMutexGuard guard(LoggerLock());
    if (IsStarted()) return false;
    startAllowed = allowed;
    return true;
}

bool Logger::SetUseLocalTime(bool local) {
    KxMutexGuard guard(LoggerLock());
    if (IsStarted()) return false;
    useLocalTime.store(local, std::memory_order_relaxed);
    return true;
}

bool Logger::SetAutoCreateWriters(bool create) {
    KxMutexGuard guard(LoggerLock());
    if (IsStarted()) return false;
    autoCreateWriters = create;
    return true;
}

bool Logger::SetTraceKeyFallback(bool fallback) {
    KxMutexGuard guard(LoggerLock());
    if (IsStarted()) return false;
    traceKeyFallback = fallback;
    return true;
}

RCPtr<LogWriter> Logger::AddWriter(int type) {
    KxMutexGuard guard(LoggerLock());
    if (IsStarted() || HasWriter(type)) return {};
    RCPtr<LogWriter> writer = MakeWriter(type);
    if (!writer) return {};
    writer->logger = this;
    writers.emplace(type, writer);
    return writer;
}

RCPtr<LogWriter> Logger::GetWriter(int type) {
    KxMutexGuard guard(LoggerLock());
    const auto found = writers.find(type);
    return found == writers.end() ? RCPtr<LogWriter>() : found->second;
}

bool Logger::HasWriter(int type) {
    return static_cast<bool>(GetWriter(type));
}

bool Logger::AddConfigFile(const std::string& path) {
    if (componentName.empty() || path.empty()) return false;
    KxMutexGuard guard(LoggerLock());
    readers.emplace_back(new ConfigSettingsReader(this, componentName + "." + name, path));
    return true;
}

bool Logger::Start() {
    KxMutexGuard guard(LoggerLock());
    if (IsStarted()) return true;
    for (const RCPtr<SettingsReader>& reader : std::list<RCPtr<SettingsReader>>(readers)) ApplySettings(reader);
    if (!startAllowed || writers.empty()) return false;
    size_t running = 0;
    for (const auto& [type, writer] : writers) running += writer->Start() ? 1 : 0;
    if (running == 0) return false;
    if (LoggerManager::GetDefaultLogger() == this) UpdateLogLevel(GetLevel());
    started.store(true, std::memory_order_relaxed);
    autoCreateWriters = false;
    LogStartupInfo();
    return true;
}

// Writers are stopped outside the lock: each waits for its background pass.
bool Logger::Stop() {
    std::map<int, RCPtr<LogWriter>> stopped;
    std::list<RCPtr<SettingsReader>> detached;
    {
        KxMutexGuard guard(LoggerLock());
        stopped.swap(writers);
        detached.swap(readers);
    }
    for (const auto& [type, writer] : stopped) writer->Stop();
    return true;
}

void Logger::LogStartupInfo() {
    KxMutexGuard guard(LoggerLock());
    const std::string process = ProcessUtils::GetProcessName();
    WriteText(process.empty() ? __PRETTY_FUNCTION__ : ("@" + process).c_str(), "%s%s\n",
              ProcessUtils::GetVersionText().c_str(), (std::string(", buildtype=") + kBuildType).c_str());
    WriteText("@OS Version", "%s%s\n", ProcessUtils::GetOSText().c_str(), "");
    WriteText("@Time Zone", "%ls, %s time is %s\n", StringUtils::GetTimeZoneText().c_str(),
              UsesLocalTime() ? "Local" : "UTC", StringUtils::GetTimestamp(!UsesLocalTime()).c_str());
    WriteText("@Log Level", "%s (read from %s)\n", GetLevelName(), levelSource.c_str());
}

const char* Logger::GetLevelName() {
    return LogLevelName(GetLevel());
}

void Logger::ReturnMessages(std::span<RCPtr<LogMessage>> messages) {
    messageManager->Cache().ReturnMessages(messages);
}

RCPtr<LogMessage> Logger::NewMessage(int messageLevel, const char* text, int length) {
    return messageManager ? messageManager->NewMessage(messageLevel, text, length) : RCPtr<LogMessage>();
}

void Logger::SetSink(LogSink sink, void* context, int level) {
    KxMutexGuard levels(LoggerLock());
    SinkState& state = Sink();
    std::lock_guard guard(state.lock);
    state.sink = sink;
    state.context = context;
    sinkLevel.store(sink ? level : -1, std::memory_order_relaxed);
    UpdateLogLevel(defaultLevel.load(std::memory_order_relaxed));
}

void Logger::UpdateLogLevel(int loggerLevel) {
    defaultLevel.store(loggerLevel, std::memory_order_relaxed);
    gLogLevel.store(std::max(loggerLevel, sinkLevel.load(std::memory_order_relaxed)), std::memory_order_relaxed);
}
