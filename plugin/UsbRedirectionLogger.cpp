#include "plugin/UsbRedirectionLogger.h"

#include "logging/Log.h"
#include "logging/LogWriter.h"
#include "logging/LoggerManager.h"

namespace {

constexpr uint32_t kBatchThreshold = 500000;
constexpr uint32_t kFlushPeriodMS = 1000;

}  // namespace

UsbRedirectionLogger::UsbRedirectionLogger() : loggerName("UsbRedirectionLogger") {}

UsbRedirectionLogger::~UsbRedirectionLogger() {
    Stop();
}

bool UsbRedirectionLogger::Start(const std::string& name, const std::string& componentName, const std::string&,
                                 int level, bool makeDefault) {
    logger = LoggerManager::GetLogger(name);
    if (logger) {
        LOG(Info, "Start logging was called after the logger was initialized. Returning.\n");
        return true;
    }
    logger = LoggerManager::CreateLogger(name, componentName, makeDefault);
    if (!logger) return false;
    logger->SetLevel(level);
    const RCPtr<LogWriter> writer = logger->AddWriter(kFileWriter);
    if (!writer) return false;
    writer->SetBatchThreshold(kBatchThreshold);
    writer->SetFlushPeriod(kFlushPeriodMS);
    if (!logger->Start()) return false;
    LOG(Info, "USBRedirection - Logger started with default FileWriter.\n");
    return true;
}

bool UsbRedirectionLogger::Start(const std::string& componentName, const std::string& registryPath) {
    return Start(loggerName, componentName, registryPath, kLogInfo, true);
}

void UsbRedirectionLogger::Stop() {
    if (!logger) return;
    LoggerManager::Shutdown();
    logger = nullptr;
}
