// The owner of all loggers, of the message pool and of the thread that writes in the background.
#pragma once

#include <map>
#include <string>

#include "logging/Logger.h"
#include "runtime/KxMutex.h"

class KxPollThread;
class LogMessageManager;

// The log lock. It guards the tables of LoggerManager and Logger, every writer setting and the queue index of every
// writer, and is the lock of the poll thread "Logger". Made on first use and never destroyed: static objects log in
// their destructors.
KxMutex& LoggerLock();

// Made on first need and never deleted.
class LoggerManager {
public:
    static LoggerManager* GetInstance();
    static LoggerManager* Existing();  // null if none has been made
    virtual ~LoggerManager();

    static bool IsShuttingDown();
    static RCPtr<Logger> GetDefaultLogger();
    static bool SetDefaultLogger(const RCPtr<Logger>& logger);
    static bool HasLogger(const std::string& name);
    static RCPtr<Logger> GetLogger(const std::string& name);

    // Null if name is empty or taken.
    static RCPtr<Logger> CreateLogger(const std::string& name, const std::string& componentName, bool makeDefault);

    // The thread "Logger", running.
    static RCPtr<KxPollThread> GetPollThread();

    // Stops the thread and all loggers, each with its last lines. Logging can be set up again afterwards.
    static void Shutdown();

private:
    friend class Logger;
    LoggerManager();

    RCPtr<Logger> defaultLogger;
    std::map<std::string, RCPtr<Logger>> loggers;
    RCPtr<LogMessageManager> messageManager;  // made with the first logger, shared by all
    RCPtr<KxPollThread> pollThread;
    bool shuttingDown = false;
};
