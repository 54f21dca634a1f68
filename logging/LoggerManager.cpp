#include "logging/LoggerManager.h"

#include <atomic>
#include <new>
#include <utility>

#include "logging/LogMessageCache.h"
#include "runtime/KxPollThread.h"

namespace {

// Never deleted. Made under the log lock; read also without it by the log entry, so atomic.
std::atomic<LoggerManager*> instance{nullptr};

}  // namespace

KxMutex& LoggerLock() {
    static KxMutex& gLoggerLock = *new KxMutex(false, "");
    return gLoggerLock;
}

LoggerManager::LoggerManager() : pollThread(new KxPollThread("Logger")) {
    pollThread->SetLock(&LoggerLock());
}

LoggerManager::~LoggerManager() = default;

LoggerManager* LoggerManager::Existing() {
    return instance.load(std::memory_order_acquire);
}

LoggerManager* LoggerManager::GetInstance() {
    if (LoggerManager* manager = Existing()) return manager;
    KxMutexGuard guard(LoggerLock());
    LoggerManager* manager = Existing();
    if (!manager) {
        manager = new (std::nothrow) LoggerManager;
        instance.store(manager, std::memory_order_release);
    }
    return manager;
}

bool LoggerManager::IsShuttingDown() {
    KxMutexGuard guard(LoggerLock());
    return GetInstance()->shuttingDown;
}

RCPtr<Logger> LoggerManager::GetDefaultLogger() {
    KxMutexGuard guard(LoggerLock());
    return GetInstance()->defaultLogger;
}

bool LoggerManager::SetDefaultLogger(const RCPtr<Logger>& logger) {
    KxMutexGuard guard(LoggerLock());
    GetInstance()->defaultLogger = logger;
    Logger::UpdateLogLevel(logger && logger->IsStarted() ? logger->GetLevel() : kLogAlways);
    return true;
}

bool LoggerManager::HasLogger(const std::string& name) {
    return static_cast<bool>(GetLogger(name));
}

RCPtr<Logger> LoggerManager::GetLogger(const std::string& name) {
    KxMutexGuard guard(LoggerLock());
    const auto& loggers = GetInstance()->loggers;
    const auto found = loggers.find(name);
    return found == loggers.end() ? RCPtr<Logger>() : found->second;
}

RCPtr<Logger> LoggerManager::CreateLogger(const std::string& name, const std::string& componentName, bool makeDefault) {
    KxMutexGuard guard(LoggerLock());
    LoggerManager* const manager = GetInstance();
    if (name.empty() || manager->loggers.count(name) != 0) return {};
    if (!manager->messageManager) manager->messageManager = new LogMessageManager;
    RCPtr<Logger> logger(new Logger(name, componentName));
    manager->loggers.emplace(name, logger);
    if (makeDefault) SetDefaultLogger(logger);
    return logger;
}

RCPtr<KxPollThread> LoggerManager::GetPollThread() {
    KxMutexGuard guard(LoggerLock());
    RCPtr<KxPollThread> thread = GetInstance()->pollThread;
    thread->StartScheduler();
    return thread;
}

// What waits is outside the lock. Writers are stopped after the thread, so that nobody else drains their queues.
void LoggerManager::Shutdown() {
    LoggerManager* const manager = GetInstance();
    RCPtr<KxPollThread> thread;
    {
        KxMutexGuard guard(LoggerLock());
        manager->shuttingDown = true;
        thread = manager->pollThread;
    }
    thread->StopScheduler();
    thread->RemoveAllItems(true);
    std::map<std::string, RCPtr<Logger>> stopped;
    {
        KxMutexGuard guard(LoggerLock());
        stopped.swap(manager->loggers);
        manager->defaultLogger = nullptr;
        Logger::UpdateLogLevel(kLogAlways);
    }
    for (const auto& [name, logger] : stopped) logger->Stop();
    RCPtr<LogMessageManager> released;  // goes after the lock
    KxMutexGuard guard(LoggerLock());
    released = std::move(manager->messageManager);
}
