// A line on a terminal that shows how far a replay has come.
#pragma once

#include <chrono>
#include <cstdint>
#include <cstdio>

class ProgressBar {
public:
    // Draws on the stream if it is a terminal, else does nothing at all.
    explicit ProgressBar(FILE* terminal);
    ProgressBar(const ProgressBar&) = delete;
    ProgressBar& operator=(const ProgressBar&) = delete;
    ~ProgressBar();  // wipes the line

    // Shows done of total; draws anew at most ten times a second.
    void Show(uint64_t done, uint64_t total);

private:
    FILE* stream;  // null: no terminal
    std::chrono::steady_clock::time_point nextDrawing;
    bool drawn = false;
};
