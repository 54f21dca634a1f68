// What one direction was given less what arrived must be what was refused and cut. The answer of an asynchronous
// message is no message of its own to the service's counts: where a fall ended the request, the answer counts as cut.
#include "tools/replay/Ledger.h"

namespace {

KindCounts FromDaemon(const UsbReplayCounts& counts) {
    return {counts.post, counts.fast, counts.hid, counts.async, counts.bytes};
}

}  // namespace

uint64_t Ledger::Arrived() const {
    return agent.received.Messages() + agent.malformed + daemon.returned.Messages() + daemon.mismatched +
           daemon.filterEnabled + daemon.filterDisabled;
}

Shortfall Ledger::Outbound(bool channelFell, std::vector<std::string>* problems) const {
    const uint64_t sent = daemon.sent.Messages();
    uint64_t accepted = 0, cut = agent.undeliverable;
    for (const auto& [command, count] : channel) {
        accepted += count.accepted;
        cut += count.cut;
    }
    if (accepted > sent) problems->push_back("the channel accepted more messages than the daemon sent");
    const uint64_t refused = sent > accepted ? sent - accepted : 0;
    return Account("outbound", sent, refused, cut, agent.received.Messages() + agent.malformed, channelFell, problems);
}

Shortfall Ledger::Returning(bool channelFell, std::vector<std::string>* problems) const {
    const uint64_t answered = agent.received.async, answers = daemon.returned.async;
    const uint64_t sent = agent.repliesAccepted + agent.repliesRefused + answered;
    const uint64_t arrived =
        daemon.returned.Messages() + daemon.mismatched + daemon.filterEnabled + daemon.filterDisabled;
    uint64_t cut = agent.repliesCut;
    for (const auto& [command, count] : channel) cut += count.undeliverable;
    if (channelFell && answered > answers) cut += answered - answers;
    return Account("returning", sent, agent.repliesRefused, cut, arrived, channelFell, problems);
}

bool Ledger::Settled(bool channelFell) const {
    std::vector<std::string> problems;
    return agent.greeted && openRequests == 0 &&
           Outbound(channelFell, &problems).lost + Returning(channelFell, &problems).lost == 0;
}

void Ledger::Report(bool channelFell, ReplayReport* report) const {
    report->sent = FromDaemon(daemon.sent);
    report->agent = agent;
    report->returned = FromDaemon(daemon.returned);
    report->mismatched = daemon.mismatched;
    report->outbound = Outbound(channelFell, &report->problems);
    report->returning = Returning(channelFell, &report->problems);
    if (daemon.mismatched) report->problems.push_back("came back wrong: " + daemon.firstMismatch);
    if (agent.malformed)
        report->problems.push_back("the agent could not read " + WithSeparators(agent.malformed) + " of the messages");
    if (agent.received.Messages() == daemon.sent.Messages() && agent.received != report->sent)
        report->problems.push_back("the agent received other messages than the daemon sent");
    report->fastLatency = daemon.fastLatency;
    report->hidLatency = daemon.hidLatency;
}
