// The plug-in's own log: which logger, which writer and which settings it asks for.
#pragma once

#include <string>

#include "logging/Logger.h"

// Started when the plug-in is initialised and stopped as the last act of its exit; both on the host's thread. The log
// files are those of a FileWriter in the user's folder for temporary files, at INFO. No settings reader is attached.
class UsbRedirectionLogger {
public:
    UsbRedirectionLogger();
    UsbRedirectionLogger(const UsbRedirectionLogger&) = delete;
    UsbRedirectionLogger& operator=(const UsbRedirectionLogger&) = delete;
    virtual ~UsbRedirectionLogger();

    // Starts the logger of that name; true also if there is one already. registryPath is not read. After a failure the
    // plug-in goes on without a log.
    bool Start(const std::string& name, const std::string& componentName, const std::string& registryPath, int level,
               bool makeDefault);
    // The same with the plug-in's name, at INFO, as the default logger.
    bool Start(const std::string& componentName, const std::string& registryPath);

    // Ends all logging of the process, if this has started it.
    void Stop();

private:
    RCPtr<Logger> logger;  // empty when not started
    std::string loggerName;
};
