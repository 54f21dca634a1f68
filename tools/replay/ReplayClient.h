// One of several client processes that usb-replay runs at once: the child's side.
//
// It writes to its standard output, a line of JSON each, and its parent answers on its standard input:
//   {"prepared":FILE}    it is about to dial the agent, and waits for a line of whatever content; the plug-in's log
//   {"sent":MESSAGES}    some times a second
//   {"report":...}       at the end, all of its report; or
//   {"error":TEXT}       it never came to sending
#pragma once

#include <atomic>
#include <vector>

#include "standin/usbd/UsbCapture.h"
#include "tools/replay/Options.h"

// Replays against the agent that the options name. Gives the exit status of the process: 0 for a report without a
// fault, else 1.
int RunReplayClient(const ReplayOptions& options, std::vector<UsbCapture> captures,
                    const std::atomic<bool>& stopRequested);
