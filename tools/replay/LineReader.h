// Whole lines from a descriptor, with time limits.
#pragma once

#include <chrono>
#include <optional>
#include <string>

// Milliseconds until the deadline, 0 when it is over.
int MillisecondsLeft(std::chrono::steady_clock::time_point deadline);

// Lines come without their ends; what follows the last end is never given. The descriptor outlives it.
class LineReader {
public:
    explicit LineReader(int source) : fd(source) {}

    // Waits for the next line. None at the end of the input, on failure and on time-out.
    std::optional<std::string> Read(int timeoutMS);

    // Takes up, once, what has come by now, and waits for it if nothing has. False at the end of the input and on
    // failure.
    bool Fill();

    // The next line of what was taken up.
    std::optional<std::string> Next();

private:
    const int fd;
    std::string unread;
};
