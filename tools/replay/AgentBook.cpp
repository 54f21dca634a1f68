#include "tools/replay/AgentBook.h"

#include <utility>

#include "standin/qscservice/Server.h"

bool ClientBook::Greet() {
    const qscservice::Lock guard(lock);
    return !std::exchange(counts.greeted, true);
}

uint32_t ClientBook::NextRunningNumber() {
    const qscservice::Lock guard(lock);
    return ++runningNumber;
}

void ClientBook::CountMessage(uint64_t KindCounts::*kind, size_t bytes) {
    const qscservice::Lock guard(lock);
    counts.received.*kind += 1;
    counts.received.bytes += bytes;
}

void ClientBook::CountMessage(uint64_t KindCounts::*kind, size_t bytes, bool accepted) {
    const qscservice::Lock guard(lock);
    counts.received.*kind += 1;
    counts.received.bytes += bytes;
    (accepted ? counts.repliesAccepted : counts.repliesRefused)++;
}

void ClientBook::CountReply(bool accepted) {
    const qscservice::Lock guard(lock);
    (accepted ? counts.repliesAccepted : counts.repliesRefused)++;
}

void ClientBook::CountMalformed() {
    const qscservice::Lock guard(lock);
    counts.malformed++;
}

void ClientBook::AddTo(AgentCounts* sum) const {
    const qscservice::Lock guard(lock);
    sum->greeted = sum->greeted || counts.greeted;
    for (uint64_t KindCounts::*kind :
         {&KindCounts::post, &KindCounts::fast, &KindCounts::hid, &KindCounts::async, &KindCounts::bytes}) {
        sum->received.*kind += counts.received.*kind;
    }
    sum->repliesAccepted += counts.repliesAccepted;
    sum->repliesRefused += counts.repliesRefused;
    sum->malformed += counts.malformed;
}

ClientBook& AgentBook::Of(uint64_t client) {
    const qscservice::Lock guard(lock);
    return clients[client];
}

AgentCounts AgentBook::Counts(uint64_t client) const {
    AgentCounts sum;
    {
        const qscservice::Lock guard(lock);
        for (const auto& [end, book] : clients) {
            if (client == 0 || end == client) book.AddTo(&sum);
        }
    }
    for (const auto& [command, count] : qscservice::ServerCounts(client)) {
        sum.repliesCut += count.cut;
        sum.undeliverable += count.undeliverable;
    }
    return sum;
}
