// What a test and the plug-in that it hosts share: the journal, reached through the export HostedPlugin_Journal.
#pragma once

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

struct HostedPluginJournal {
    std::mutex mutex;  // guards the fields below
    std::condition_variable changed;
    std::vector<std::string> lines;
    std::string failing;  // the entry point that gives FALSE at its next call
    void* hChannel = nullptr;
    std::thread::id deliveredOn;  // thread of the last callback
    void (*poll)() = nullptr;     // Channel.v1.Poll, after Init
};

using HostedPluginJournalGetter = HostedPluginJournal* (*)();
