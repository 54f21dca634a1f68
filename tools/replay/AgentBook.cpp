#include "tools/replay/AgentBook.h"

#include "standin/qscservice/Server.h"

namespace {

void Count(AgentCounts* counts, uint64_t KindCounts::*kind, size_t bytes) {
    counts->received.*kind += 1;
    counts->received.bytes += bytes;
}

void Add(AgentCounts* sum, const AgentCounts& counts) {
    sum->greeted = sum->greeted || counts.greeted;
    for (uint64_t KindCounts::*kind :
         {&KindCounts::post, &KindCounts::fast, &KindCounts::hid, &KindCounts::async, &KindCounts::bytes}) {
        sum->received.*kind += counts.received.*kind;
    }
    sum->repliesAccepted += counts.repliesAccepted;
    sum->repliesRefused += counts.repliesRefused;
    sum->malformed += counts.malformed;
}

}  // namespace

bool AgentBook::Greet(uint64_t client) {
    const qscservice::Lock guard(lock);
    return !std::exchange(clients[client].counts.greeted, true);
}

uint32_t AgentBook::NextRunningNumber(uint64_t client) {
    const qscservice::Lock guard(lock);
    return ++clients[client].runningNumber;
}

void AgentBook::CountMessage(uint64_t client, uint64_t KindCounts::*kind, size_t bytes) {
    const qscservice::Lock guard(lock);
    Count(&clients[client].counts, kind, bytes);
}

void AgentBook::CountMessage(uint64_t client, uint64_t KindCounts::*kind, size_t bytes, bool accepted) {
    const qscservice::Lock guard(lock);
    AgentCounts& counts = clients[client].counts;
    Count(&counts, kind, bytes);
    (accepted ? counts.repliesAccepted : counts.repliesRefused)++;
}

void AgentBook::CountReply(uint64_t client, bool accepted) {
    const qscservice::Lock guard(lock);
    AgentCounts& counts = clients[client].counts;
    (accepted ? counts.repliesAccepted : counts.repliesRefused)++;
}

void AgentBook::CountMalformed(uint64_t client) {
    const qscservice::Lock guard(lock);
    clients[client].counts.malformed++;
}

AgentCounts AgentBook::Counts(uint64_t client) const {
    AgentCounts sum;
    {
        const qscservice::Lock guard(lock);
        for (const auto& [end, known] : clients) {
            if (client == 0 || end == client) Add(&sum, known.counts);
        }
    }
    for (const auto& [command, count] : qscservice::ServerCounts(client)) {
        sum.repliesCut += count.cut;
        sum.undeliverable += count.undeliverable;
    }
    return sum;
}
