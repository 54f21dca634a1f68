// A program that runs beside this one, with its standard input and output at hand.
#pragma once

#include <signal.h>
#include <sys/types.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "standin/qscservice/Transport.h"
#include "tools/replay/LineReader.h"

// In a process group of its own, so that an interrupt typed at the terminal reaches this process alone. Used by one
// thread at a time.
class ChildProcess {
public:
    // Starts program with arguments (those after the name) and that signal mask. Null, with one line in error, if that
    // fails.
    static std::unique_ptr<ChildProcess> Start(const std::string& program, const std::vector<std::string>& arguments,
                                               const sigset_t& mask, std::string* error);
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;
    ~ChildProcess();  // kills what still runs

    pid_t Pid() const { return pid; }

    // Writes to its standard input. False if it takes no more.
    bool Write(const std::string& text);
    void CloseInput() { input.Reset(); }

    // Its standard output.
    LineReader& Output() { return lines; }
    int OutputFd() const { return output.Get(); }

    // Sends a signal unless it has ended.
    void Signal(int number);

    // Waits until it has ended. False on time-out.
    bool WaitForEnd(int timeoutMS);

    // Empty while it runs, else how it ended: "exited with status 3", "was killed by signal 9".
    std::string HowItEnded();

    // Whether it was seen to end with status 0.
    bool EndedWell() const { return status == 0; }

private:
    ChildProcess(pid_t child, qscservice::Fd toChild, qscservice::Fd fromChild);

    const pid_t pid;
    qscservice::Fd input;
    qscservice::Fd output;
    LineReader lines;
    std::optional<int> status;  // of waitpid, once it has ended
};
