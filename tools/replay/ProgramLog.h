// The log of one of our programs, as a configuration file wants it.
#pragma once

#include <string>

#include "logging/Logger.h"

// A logger that takes its level and its writers from a file of settings, and follows the file while the program runs.
// Without a file there is none, and lines are dropped.
class ProgramLog {
public:
    ProgramLog() = default;
    ProgramLog(const ProgramLog&) = delete;
    ProgramLog& operator=(const ProgramLog&) = delete;
    // Writes the last lines.
    ~ProgramLog();

    // Starts the logger of that name; its section in the file is component, "." and name. False, with one line in
    // error, if the file can't be read or asks for no writer.
    bool Start(const std::string& component, const std::string& name, const std::string& file, std::string* error);

private:
    RCPtr<Logger> logger;
};

// The newest log file of this process's plug-in, empty if there is none.
std::string FindPluginLog();
