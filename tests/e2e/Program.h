// Runs the programs of the build as a person would, for tests.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include <nlohmann/json.hpp>

struct ProgramResult {
    int status = -1;  // exit status; -1 if a signal or the time-out ended it
    std::string out, err;

    // Standard output as the one JSON object that it has to be; a null value if it is anything else.
    nlohmann::json Json() const { return nlohmann::json::parse(out, nullptr, false); }
};

// A program of <build>/bin under way.
class Program {
public:
    Program(const std::string& name, const std::vector<std::string>& args);
    // The same with its standard output on a terminal of so many rows.
    Program(const std::string& name, const std::vector<std::string>& args, unsigned short terminalRows);
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;
    ~Program();  // kills what still runs

    pid_t Pid() const { return pid; }

    // Waits until there is a child process of that name. Its process number, or -1 if there is none in time.
    pid_t WaitForChild(const std::string& name) const;

    // Waits until a child process of that name has used processor time, so that work is under way.
    pid_t WaitForBusyChild(const std::string& name) const;

    // Waits until so many child processes of that name have used processor time, in the order of their numbers. Empty
    // if there are less in time.
    std::vector<pid_t> WaitForBusyChildren(const std::string& name, size_t count) const;

    // Reads standard output until the text stands there, and returns all of it up to and with the text; what comes
    // behind is for the next call. Empty if the text doesn't come.
    std::string ReadUntil(const std::string& text);

    // Collects the output until the program ends.
    ProgramResult Finish();

private:
    void Start(const std::string& name, const std::vector<std::string>& args, int outEnd);
    std::vector<pid_t> WaitForChildren(const std::string& name, size_t count, uint64_t minTicks) const;

    pid_t pid = -1;
    int out = -1, err = -1;
    std::string unread;  // of standard output, already taken from there
};

// The arguments of a running process, its name first.
std::vector<std::string> ArgumentsOf(pid_t process);

// Waits until a process, of any parent, has ended. At once if there is none of that number.
void AwaitEnd(pid_t process);

inline ProgramResult RunProgram(const std::string& name, const std::vector<std::string>& args) {
    return Program(name, args).Finish();
}
