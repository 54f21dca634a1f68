// What the settings of a reader do to a logger, before its start and while it runs.
#include <strings.h>

#include <cstdlib>

#include "logging/Log.h"
#include "logging/LogWriter.h"
#include "logging/LoggerManager.h"
#include "logging/SettingsReader.h"
#include "runtime/StringUtils.h"

namespace {

struct ValueKey {
    const char* key;
    const char* property;
};

constexpr ValueKey kFileKeys[] = {
    {"logMaxDaysKept", "maxDaysKept"},
    {"logMaxNumFiles", "maxNumFiles"},
    {"logMinAgeInHours", "minAgeInHours"},
    {"logMaxFileSizeMB", "maxFileSizeMB"},
    {"logMaxRollingFiles", "maxRollingFiles"},
    {"logDiskThresholdLowMB", "diskThresholdLowMB"},
    {"logDiskThresholdHighMB", "diskThresholdHighMB"},
};

// The value of a setting outside the reader's file. This platform keeps none.
std::string PlatformValue(const char*) {
    return {};
}

const char* BoolText(bool value) {
    return value ? "TRUE" : "FALSE";
}

}  // namespace

void Logger::ApplySettings(const RCPtr<SettingsReader>& reader) {
    if (!reader) return;
    KxMutexGuard guard(LoggerLock());
    ApplyLevelSettings(reader);
    ApplyFileSettings(reader);
    ApplySocketSettings(reader);
    ApplyDebugSettings(reader);
    ApplyStdOutSettings(reader);
    ApplyStdErrSettings(reader);
}

void Logger::ApplyLevelSettings(const RCPtr<SettingsReader>& reader) {
    levelSource = reader->Describe("logLevel");
    std::string text;
    int wanted = kLogNever;
    bool apply = IsStarted();
    if (reader->GetString("logLevel", 0, text, true)) {
        wanted = LogLevelFromName(text.c_str(), kLogNever);
        apply = apply || wanted != kLogNever;
    } else if (traceKeyFallback && !reader->IsFileReader() &&
               strcasecmp(PlatformValue("HKLM\\Software\\Corvex\\Velmora\\TraceEnabled").c_str(), "true") == 0) {
        wanted = kLogDebug;
        apply = true;
    } else {
        wanted = kLogInfo;
    }
    if (apply && wanted != GetLevel()) {
        level.store(wanted, std::memory_order_relaxed);
        if (LoggerManager::GetDefaultLogger() == this) UpdateLogLevel(wanted);
        LOG_AS(reader->GetName(), Always, "%s changed to %s", "logLevel", GetLevelName());
    }

    bool local = true;
    const bool hasLocal = reader->GetBool("useLocalTime", &local, true);
    if ((hasLocal || IsStarted()) && local != UsesLocalTime()) {
        useLocalTime.store(local, std::memory_order_relaxed);
        LOG_AS(reader->GetName(), Always, "%s changed to %s", "useLocalTime", BoolText(local));
    }

    bool buffering = true;
    if (!reader->GetBool("enableBuffering", &buffering, true) && !IsStarted()) return;
    for (const auto& [type, writer] : writers) {
        if (writer->IsBuffering() == buffering) continue;
        writer->SetBuffering(buffering);
        LOG_AS(reader->GetName(), Always, "%s changed to %s", "enableBuffering", BoolText(buffering));
    }
}

// The switch of one writer, which it makes if settings may. Returns the writer, null if there is none.
RCPtr<LogWriter> Logger::ApplySwitch(const RCPtr<SettingsReader>& reader, int type, const char* key,
                                     const char* label) {
    RCPtr<LogWriter> writer = GetWriter(type);
    if (!writer && !autoCreateWriters) return {};
    bool wanted = false;
    if (!reader->GetBool(key, &wanted, true)) return writer;
    if (!writer) return wanted ? AddWriter(type) : RCPtr<LogWriter>();
    if (wanted == writer->IsEnabled()) return writer;
    const auto tell = [&] {
        if (IsStarted()) LOG_AS(reader->GetName(), Always, "%s - %s changed to %s", label, key, BoolText(wanted));
    };
    // The line about the end goes ahead of it, so that it still reaches this writer.
    if (!wanted) tell();
    writer->SetEnabled(wanted);
    if (wanted) tell();
    return writer;
}

void Logger::ApplyFileSettings(const RCPtr<SettingsReader>& reader) {
    const RCPtr<LogWriter> writer = ApplySwitch(reader, kFileWriter, "logEnabled", "FILE");
    if (!writer) return;
    std::string folder;
    if (!IsStarted() && reader->GetString("logDirectory", 0, folder, true)) writer->SetProperty("folderPath", folder);
    for (const ValueKey& each : kFileKeys) {
        uint32_t wanted = 0;
        if (!reader->GetUInt(each.key, &wanted, true)) continue;
        std::string present;
        writer->GetProperty(each.property, present);
        if (std::strtoul(present.c_str(), nullptr, 10) == wanted) continue;
        writer->SetProperty(each.property, std::to_string(wanted));
        if (IsStarted()) LOG_AS(reader->GetName(), Always, "FILE - %s changed to %u", each.key, wanted);
    }
}

void Logger::ApplySocketSettings(const RCPtr<SettingsReader>& reader) {
    const RCPtr<LogWriter> writer = ApplySwitch(reader, kSocketWriter, "logToSyslog", "SOCKET");
    if (!writer || IsStarted()) return;
    std::string address;
    if (reader->GetString("logRemoteAddress", 0, address, true)) writer->SetProperty("remoteAddress", address);
    uint32_t port = 0;
    if (reader->GetUInt("logRemotePort", &port, true)) writer->SetProperty("remotePort", std::to_string(port));
}

void Logger::ApplyDebugSettings(const RCPtr<SettingsReader>& reader) {
    ApplySwitch(reader, kDebugWriter, "logToDebugView", "DEBUG");
}

void Logger::ApplyStdOutSettings(const RCPtr<SettingsReader>& reader) {
    ApplySwitch(reader, kStdOutWriter, "logToStdout", "STDOUT");
}

void Logger::ApplyStdErrSettings(const RCPtr<SettingsReader>& reader) {
    ApplySwitch(reader, kStdErrWriter, "logToStderr", "STDERR");
}
