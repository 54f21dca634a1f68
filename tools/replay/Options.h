// The command line of usb-replay.
#pragma once

#include <cstdint>
#include <string>
#include <variant>
#include <vector>

enum class Transport { Unix, Tcp };

struct ReplayOptions {
    std::vector<std::string> captures;  // empty: the capture that is shipped
    uint32_t loop = 1;                  // times that each capture is replayed
    uint32_t threads = 1;               // daemon threads that send
    uint32_t interruptEvery = 0;        // messages between two falls of the channel; 0: it stays up
    Transport transport = Transport::Unix;
    std::string logConfig;       // file of settings for the program's own log; empty: there is none
    bool timed = false;          // keep the gaps between the records
    bool startByClient = false;  // the embedding client starts the daemon, not the startup arguments
    bool json = false;
    bool help = false;
    bool version = false;
};

// Reads the arguments after the program name. A value stands in the next argument or behind '='; "--" ends the options;
// a later option overrides an earlier one. Gives the options, or one line that says what is wrong.
std::variant<ReplayOptions, std::string> ParseOptions(const std::vector<std::string>& args);

// The text of --help.
const char* ReplayUsage();
