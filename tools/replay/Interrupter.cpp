#include "tools/replay/Interrupter.h"

namespace {

constexpr DWORD kReadySliceMS = 50;  // between two looks at a stop
constexpr int kReadySlices = 200;    // 10 s until the channel counts as gone for good

}  // namespace

// The plug-in reports to the embedding client each time that the channel is ready. The report of the last time may come
// after the first messages, so that reports are counted, not waited for one by one.
void Interrupter::Interrupt() {
    const qscservice::Lock guard(running);
    if (finished || aborted.load(std::memory_order_acquire)) return;
    const uint64_t falls = count.fetch_add(1, std::memory_order_acq_rel) + 1;
    channel.Interrupt();
    std::string error;
    if (!channel.Reconnect(&error)) return Fail("the channel cannot be connected again: " + error);
    for (int slice = 0; slice < kReadySlices; slice++) {
        if (client.WaitForInitReports(static_cast<size_t>(falls) + 1, kReadySliceMS)) return;
        if (aborted.load(std::memory_order_acquire)) return;
    }
    Fail("the plug-in did not get ready again after the channel came back");
}

void Interrupter::Finish() {
    const qscservice::Lock guard(running);
    finished = true;
}

bool Interrupter::FellByItself() {
    if (!running.try_lock()) return false;
    const bool down = channel.ConnectionState() != QSC_CONNECTION_CONNECTED;
    running.unlock();
    return down;
}

std::string Interrupter::Failure() const {
    const qscservice::Lock guard(lock);
    return failure;
}

void Interrupter::Fail(const std::string& text) {
    Abort();
    const qscservice::Lock guard(lock);
    if (failure.empty()) failure = text;
}
