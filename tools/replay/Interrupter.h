// Takes the channel of a replay down and up again, as often as it is told to.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "standin/client/EmbeddingClient.h"
#include "standin/qscservice/LockGuard.h"
#include "standin/qscservice/ServiceChannel.h"

// The channel and the client outlive it. All operations are safe on any thread.
class Interrupter {
public:
    Interrupter(qscservice::ServiceChannel& serviceChannel, const EmbeddingClient& embeddingClient)
        : channel(serviceChannel), client(embeddingClient) {}
    Interrupter(const Interrupter&) = delete;
    Interrupter& operator=(const Interrupter&) = delete;

    // Takes the channel down and up and waits until the plug-in is ready again; it must have been ready once before.
    // Nothing happens after Finish, Abort or a failure.
    void Interrupt();

    // Refuses further interruptions and waits until the one under way is over.
    void Finish();

    // Refuses further interruptions and cuts the one under way short, without waiting for its end.
    void Abort() { aborted.store(true, std::memory_order_release); }  // pairs with the loads in Interrupt

    // Falls that were caused, the one under way included.
    uint64_t Count() const { return count.load(std::memory_order_acquire); }

    // Whether the channel is down although no interruption is under way.
    bool FellByItself();

    // Why the channel did not come back; empty if it did.
    std::string Failure() const;

private:
    void Fail(const std::string& text);

    qscservice::ServiceChannel& channel;
    const EmbeddingClient& client;
    std::atomic<uint64_t> count{0};  // release and acquire: whoever sees a fall counted reckons with what it cut
    std::atomic<bool> aborted{false};
    qscservice::Mutex running;  // held throughout an interruption; guards finished
    bool finished GUARDED_BY(running) = false;
    mutable qscservice::Mutex lock;  // guards failure
    std::string failure GUARDED_BY(lock);
};
