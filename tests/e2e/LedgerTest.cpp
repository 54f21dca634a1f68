#include "tools/replay/Ledger.h"

#include <gtest/gtest.h>

#include <functional>

namespace {

// 10 posts, 20 fast posts, 5 HID posts and 2 asynchronous messages, all of which arrived and came back.
Ledger Undisturbed() {
    Ledger ledger;
    ledger.agent.greeted = true;
    ledger.agent.received = {10, 20, 5, 2, 3700};
    ledger.agent.repliesAccepted = 27;
    ledger.channel[0].accepted = 10;
    ledger.channel[1].accepted = 20;
    ledger.channel[2].accepted = 2;
    ledger.channel[3].accepted = 5;
    ledger.daemon.sent = {10, 20, 5, 2, 3700};
    ledger.daemon.returned = {0, 20, 5, 2, 2718};
    ledger.daemon.filterEnabled = ledger.daemon.filterDisabled = 1;
    return ledger;
}

TEST(Ledger, IsSettledOnceEveryMessageIsExplained) {
    struct Case {
        const char* what;
        bool fell;
        std::function<void(Ledger&)> change;
        bool settled;
    };
    for (const Case& c : {
             Case{"nothing missing", false, [](Ledger&) {}, true},
             {"not at the agent yet", false, [](Ledger& l) { l.agent.received.post--; }, false},
             {"not back yet", false, [](Ledger& l) { l.daemon.returned.fast--; }, false},
             {"filter message not here yet", false, [](Ledger& l) { l.daemon.filterEnabled--; }, false},
             {"agent not ready yet", false, [](Ledger& l) { l.agent.greeted = false; }, false},
             {"answer not here yet", true,
              [](Ledger& l) {
                  l.daemon.returned.async--;
                  l.openRequests = 1;
              },
              false},
             {"answer gone with the channel", true, [](Ledger& l) { l.daemon.returned.async--; }, true},
             {"answer gone without a fall", false, [](Ledger& l) { l.daemon.returned.async--; }, false},
             {"cut on the way there", true,
              [](Ledger& l) {
                  l.agent.received.post--;
                  l.channel[0].cut++;
              },
              true},
             {"arrived too late to be looked at", true,
              [](Ledger& l) {
                  l.agent.received.post--;
                  l.agent.undeliverable++;
              },
              true},
             {"refused", true,
              [](Ledger& l) {
                  l.agent.received.post--;
                  l.channel[0].accepted--;
              },
              true},
             {"cut on the way back", true,
              [](Ledger& l) {
                  l.daemon.returned.hid--;
                  l.agent.repliesCut++;
              },
              true},
             {"reply refused", true,
              [](Ledger& l) {
                  l.daemon.returned.hid--;
                  l.agent.repliesAccepted--;
                  l.agent.repliesRefused++;
              },
              true},
             {"came back wrong", false,
              [](Ledger& l) {
                  l.daemon.returned.hid--;
                  l.daemon.mismatched++;
              },
              true},
         }) {
        Ledger ledger = Undisturbed();
        c.change(ledger);
        EXPECT_EQ(ledger.Settled(c.fell), c.settled) << c.what;
    }
}

TEST(Ledger, ReportsWhatIsMissingAndWhatContradictsItself) {
    struct Case {
        const char* what;
        std::function<void(Ledger&)> change;
        uint64_t lost, mismatched;
        const char* problem;
    };
    for (const Case& c : {
             Case{"nothing", [](Ledger&) {}, 0, 0, nullptr},
             {"lost there", [](Ledger& l) { l.agent.received.post--; }, 1, 0, nullptr},
             {"refused without a reason",
              [](Ledger& l) {
                  l.agent.received.post--;
                  l.channel[0].accepted--;
              },
              1, 0, nullptr},
             {"unreadable at the agent",
              [](Ledger& l) {
                  l.agent.received.post--;
                  l.agent.malformed++;
              },
              0, 0, "the agent could not read 1 of the messages"},
             {"other bytes at the agent", [](Ledger& l) { l.agent.received.bytes--; }, 0, 0,
              "the agent received other messages than the daemon sent"},
             {"more accepted than sent", [](Ledger& l) { l.channel[7].accepted++; }, 0, 0,
              "the channel accepted more messages than the daemon sent"},
             {"more back than there", [](Ledger& l) { l.daemon.filterEnabled++; }, 0, 0,
              "returning: 1 message more accounted for than sent"},
             {"came back wrong",
              [](Ledger& l) {
                  l.daemon.returned.fast--;
                  l.daemon.mismatched++;
                  l.daemon.firstMismatch = "fast post of 64 bytes: never sent";
              },
              0, 1, "came back wrong: fast post of 64 bytes: never sent"},
         }) {
        Ledger ledger = Undisturbed();
        c.change(ledger);
        ReplayReport report;
        ledger.Report(false, &report);
        EXPECT_EQ(report.Lost(), c.lost) << c.what;
        EXPECT_EQ(report.mismatched, c.mismatched) << c.what;
        EXPECT_EQ(report.problems, c.problem ? std::vector<std::string>{c.problem} : std::vector<std::string>{})
            << c.what;
    }
}

}  // namespace
