// The command line of usb-replay.
#pragma once

#include <cstdint>
#include <string>
#include <variant>
#include <vector>

enum class Transport { Unix, Tcp };
enum class AgentMode { Single, Multi };  // how many clients an agent serves at once: one or any number

struct ReplayOptions {
    std::vector<std::string> captures;  // empty: the capture that is shipped
    uint32_t loop = 1;                  // times that each capture is replayed
    uint32_t threads = 1;               // daemon threads that send
    uint32_t interruptEvery = 0;        // messages between two falls of the channel; 0: it stays up
    uint32_t clients = 0;               // processes that replay at once; 0: this process is the only one
    Transport transport = Transport::Unix;
    AgentMode agentMode = AgentMode::Multi;
    std::string sideChannel;     // "tcp" or "virtual"; empty: none
    std::string logConfig;       // file of settings for the program's own log; empty: there is none
    bool timed = false;          // keep the gaps between the records
    bool startByClient = false;  // the embedding client starts the daemon, not the startup arguments
    bool json = false;
    bool help = false;
    bool version = false;

    // An agent that runs already: where it listens, and its control socket. Both are empty where one is started.
    std::string agentAddress;
    std::string agentControl;
    bool asClient = false;  // this process is a client of another usb-replay, and talks with that on standard output
};

// Reads the arguments after the program name. A value stands in the next argument or behind '='; "--" ends the options;
// a later option overrides an earlier one. Gives the options, or one line that says what is wrong.
std::variant<ReplayOptions, std::string> ParseOptions(const std::vector<std::string>& args);

// The arguments with which an agent for such a replay is started.
std::vector<std::string> AgentArguments(const ReplayOptions& options);

// The text of --help.
const char* ReplayUsage();
