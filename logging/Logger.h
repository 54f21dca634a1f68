// A logger: a level, up to six writers, and the settings readers that tell it what to do. Logger::Log is the one log
// entry of the system; call sites reach it through the macros of logging/Log.h.
#pragma once

#include <cstdarg>
#include <list>
#include <map>
#include <set>
#include <span>
#include <string>

#include "logging/LogLevel.h"
#include "runtime/RCObject.h"
#include "runtime/ThreadAnnotations.h"

class LogMessage;
class LogMessageManager;
class LogWriter;
class SettingsReader;

// Types of writers, the keys of a logger's writers and the order in which a line visits them.
enum LogWriterType : int32_t {
    kDebugWriter = 0,
    kFileWriter = 1,
    kProxyWriter = 2,
    kSocketWriter = 3,
    kStdOutWriter = 4,
    kStdErrWriter = 5,
};

// Receives each line of the log entry, of LogLine and of a FunctionTrace at or below its level, ahead of any logger:
// the caller's signature text, the level, the text. A line that it causes itself is dropped.
using LogSink = void (*)(void* context, const char* function, int level, const char* text);

// All operations are safe on any thread and run under the log lock (LoggerLock). Setters and AddWriter return false or
// null once the logger is started. Nothing throws on bad input.
class Logger : public RCObject {
public:
    // Takes its messages from the pool of the manager. Made by LoggerManager::CreateLogger.
    Logger(const std::string& name, const std::string& componentName);
    ~Logger() override;

    // The one log entry. function is the caller's full signature text, or any text; one that begins with "@" is a ready
    // name. The line goes to the default logger; without one, or inside another log call of the same thread, it is
    // dropped.
    static void Log(const char* function, int level, const char* format, ...) __attribute__((format(printf, 3, 4)));
    static void LogV(const char* function, int level, const char* format, va_list args)
        __attribute__((format(printf, 3, 0)));

    // One line with the prefix and a dump of at most 65,535 bytes, 16 in a row, rows below the first indented by the
    // width of the prefix.
    static void LogHex(const char* function, int level, const void* data, int length);

    // The same on this logger, whether or not it is the default one.
    void LogLine(const char* function, int level, const char* format, ...) __attribute__((format(printf, 4, 5)));
    void LogHexLine(const char* function, int level, const void* data, int length);

    // To some writers only; to several of them one message, formatted by the first.
    void LogToWriter(const char* function, int level, int writerType, const char* format, ...)
        __attribute__((format(printf, 5, 6)));
    void LogToWriters(const char* function, int level, const std::set<int>& writerTypes, const char* format, ...)
        __attribute__((format(printf, 5, 6)));

    bool SetLevel(int level);
    bool SetStartAllowed(bool allowed);
    bool SetUseLocalTime(bool local);
    bool SetAutoCreateWriters(bool create);
    bool SetTraceKeyFallback(bool fallback);

    // Makes the writer of that type; null if there is one already or the type is unknown.
    RCPtr<LogWriter> AddWriter(int type);
    RCPtr<LogWriter> GetWriter(int type);
    bool HasWriter(int type);

    // Attaches a configuration file, which is read now and again whenever it changes, and applied at the start and at
    // each change; its section is componentName, "." and name. False for an empty path and without a componentName. A
    // file that can't be read has no settings.
    bool AddConfigFile(const std::string& path);

    // Puts all that reader tells into effect; nothing for null. Holds the log lock. On a started logger on the thread
    // "Logger" only, where the file watcher calls it: a change of buffering waits for the background pass.
    void ApplySettings(const RCPtr<SettingsReader>& reader);

    // Applies all readers and starts the writers. True if at least one started, and when started before.
    bool Start();

    // Stops the writers, each with its last line; the logger stays started, without writers. Always true.
    bool Stop();

    // The four lines of the header: version and build type ("release/32-bit", or "release/64-bit" where a pointer has 8
    // bytes; debug builds too), system, time zone, level.
    void LogStartupInfo();
    const char* GetLevelName();

    const std::string& GetName() const { return name; }
    const std::string& GetComponentName() const { return componentName; }
    // Read without the lock where a stale value does no harm, so atomic.
    int GetLevel() const { return level.load(std::memory_order_relaxed); }
    bool UsesLocalTime() const { return useLocalTime.load(std::memory_order_relaxed); }
    bool IsStarted() const { return started.load(std::memory_order_relaxed); }
    bool ScrubsMessages() const { return scrubMessages; }

    // A message of the pool, with text (may be null; length -1: up to its end); null if there is no memory.
    RCPtr<LogMessage> NewMessage(int messageLevel, const char* text, int length);

    // Empties all of messages, for less than one by one.
    void ReturnMessages(std::span<RCPtr<LogMessage>> messages);

    // Shows lines to sink until it is set to null, and keeps gLogLevel at sinkLevel at least. Returns after calls of
    // the earlier sink have ended.
    static void SetSink(LogSink sink, void* context, int sinkLevel);

    // gLogLevel follows the default logger's level and the sink's. The caller holds the log lock.
    static void UpdateLogLevel(int loggerLevel);

private:
    friend class LoggerManager;
    friend class FunctionTrace;
    class LineText;

    static bool SinkTakes(int level);
    // For the sink, and for logger if it isn't null.
    static void LogLineV(Logger* logger, const char* function, int level, const char* format, va_list args)
        __attribute__((format(printf, 4, 0)));

    bool Accepts(int lineLevel) const { return IsStarted() && lineLevel <= GetLevel(); }
    // Callers hold the log lock, which the analysis doesn't see through LogOn.
    template <typename Append>
    void WriteTo(const std::set<int>* types, const char* function, int lineLevel,
                 Append append) NO_THREAD_SAFETY_ANALYSIS;
    void WriteText(const char* function, const char* format, ...) __attribute__((format(printf, 3, 4)));
    template <typename Write>
    static void LogOn(Logger* logger, Write write);
    void WriteLineTo(const std::set<int>* types, const char* function, int lineLevel, LineText& text);
    void WriteHex(const char* function, int lineLevel, const void* data, int length);

    void ApplyLevelSettings(const RCPtr<SettingsReader>& reader);
    RCPtr<LogWriter> ApplySwitch(const RCPtr<SettingsReader>& reader, int type, const char* key, const char* label);
    void ApplyFileSettings(const RCPtr<SettingsReader>& reader);
    void ApplySocketSettings(const RCPtr<SettingsReader>& reader);
    void ApplyDebugSettings(const RCPtr<SettingsReader>& reader);
    void ApplyStdOutSettings(const RCPtr<SettingsReader>& reader);
    void ApplyStdErrSettings(const RCPtr<SettingsReader>& reader);

    std::map<int, RCPtr<LogWriter>> writers;
    std::list<RCPtr<SettingsReader>> readers;  // in order of attachment
    const std::string name;
    const std::string componentName;
    std::atomic<int32_t> level{kLogInfo};
    std::string levelSource;  // where the level came from, for the header
    std::atomic<bool> useLocalTime{true};
    bool startAllowed = true;
    std::atomic<bool> started{false};
    bool autoCreateWriters = true;  // settings may create writers; until the start
    bool traceKeyFallback = false;
    const bool scrubMessages = true;
    RCPtr<LogMessageManager> messageManager;
};
