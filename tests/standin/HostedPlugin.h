// What a test and the plug-in that it hosts share: the journal, reached through the export HostedPlugin_Journal.
#pragma once

#include <string>
#include <vector>

struct HostedPluginJournal {
    std::vector<std::string> lines;
    std::string failing;  // the entry point that gives FALSE at its next call
    void* hChannel = nullptr;
};

using HostedPluginJournalGetter = HostedPluginJournal* (*)();
