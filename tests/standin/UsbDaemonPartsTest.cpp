// The parts that the replaying daemon is made of: gate, message table, histogram.
#include <gtest/gtest.h>

#include <cstring>
#include <future>
#include <thread>

#include "standin/usbd/ChannelGate.h"
#include "standin/usbd/LatencyHistogram.h"
#include "standin/usbd/MessageTable.h"
#include "tests/support/UsbImage.h"

namespace {

using namespace usbd;
using usbimage::Bytes;
using usbimage::CaptureOf;
using usbimage::TransferOf;
using enum UsbTransferType;

TEST(UsbChannelGate, ARefusalShutsOnlyTheOpeningThatItMet) {
    ChannelGate gate;
    gate.Open();
    const ChannelGate::Pass first = *gate.Enter();
    gate.Open();
    gate.ShutIfStill(first);
    const std::optional<ChannelGate::Pass> second = gate.Enter();
    ASSERT_TRUE(second);
    gate.ShutIfStill(*second);
    auto wait = std::async(std::launch::async, [&] { return gate.Enter(); });
    gate.Open();
    EXPECT_NE(wait.get(), second);

    gate.Stop();
    gate.Open();
    EXPECT_FALSE(gate.Enter()) << "a stop outweighs an open gate";
}

std::unique_ptr<MessageTable> TableOf(const std::vector<UsbCapture>& captures) {
    std::string error;
    auto table = MessageTable::Make(captures, &error);
    EXPECT_TRUE(table) << error;
    return table;
}

TEST(UsbMessageTable, MakesTheKindOfMessageThatTheTransferCallsFor) {
    const Bytes payload = {1, 2, 3};
    UsbRecord setup = TransferOf(kControl, 5, {});
    setup.event = 'S';
    setup.setupFlag = 0;
    setup.setup = {0x80, 6, 0, 1, 0, 0, 0x12, 0};
    setup.dataFlag = '<';
    setup.length = 18;
    setup.status = -115;
    const UsbCapture capture = CaptureOf({TransferOf(kIsochronous, 1, payload), TransferOf(kInterrupt, 2, payload),
                                          TransferOf(kBulk, 4, payload), TransferOf(kControl, 3, payload), setup});
    const auto table = TableOf({capture});
    ASSERT_EQ(table->Steps().size(), 5u);
    const MessageKind kinds[] = {MessageKind::kFast, MessageKind::kHid, MessageKind::kFast, MessageKind::kPost,
                                 MessageKind::kPost};
    for (size_t i = 0; i < 5; ++i) EXPECT_EQ(table->Steps()[i].message->kind, kinds[i]) << i;
    for (size_t i = 0; i < 3; ++i) {
        const UsbRecord& record = capture.Records()[i];
        std::string expected(record.header.begin(), record.header.end());
        expected.append(payload.begin(), payload.end());
        EXPECT_EQ(table->Steps()[i].message->content, expected) << i;
    }
    EXPECT_EQ(table->Steps()[3].message->content,
              "record 4 event C bus 1 device 2 endpoint 81 status 0 length 3 setup - data 010203");
    EXPECT_EQ(table->Steps()[4].message->content,
              "record 5 event S bus 1 device 2 endpoint 81 status -115 length 18 setup 8006000100001200 data -");
}

TEST(UsbMessageTable, FindsExactlyWhatWasMade) {
    Bytes payload(400, 7);
    const auto table = TableOf({CaptureOf({TransferOf(kBulk, 1, payload), TransferOf(kBulk, 2, payload),
                                           TransferOf(kBulk, 1, payload), TransferOf(kInterrupt, 3, {})})});
    const std::vector<Step>& steps = table->Steps();
    EXPECT_EQ(steps[0].message, steps[2].message) << "equal records share a message";
    EXPECT_NE(steps[0].message, steps[1].message);
    for (const Step& step : steps) EXPECT_EQ(table->Find(step.message->kind, step.message->content), step.message);

    const std::string content = steps[0].message->content;
    EXPECT_FALSE(table->Find(MessageKind::kHid, content));
    EXPECT_FALSE(table->Find(MessageKind::kFast, std::string_view(content).substr(0, content.size() - 1)));
    EXPECT_FALSE(table->Find(MessageKind::kFast, ""));
    for (size_t at = 0; at < content.size(); ++at) {
        std::string other = content;
        other[at] ^= 1;
        EXPECT_NE(table->Find(MessageKind::kFast, other), steps[0].message) << at;
    }
}

TEST(UsbMessageTable, CapturesFollowEachOtherInTimeAndHaveDevicesOfTheirOwn) {
    const auto record = [](uint64_t id, uint8_t device, int64_t us) {
        UsbRecord made = TransferOf(kInterrupt, id, {});
        made.device = device;
        made.timestampUs = 1700000000000000 + us;
        return made;
    };
    const UsbCapture first = CaptureOf({record(1, 2, 500), record(2, 3, 700), record(3, 2, 600), record(4, 2, 900)});
    const UsbCapture second = CaptureOf({record(5, 2, 100), record(6, 2, 50), record(7, 2, 130)});
    const auto table = TableOf({first, second});
    EXPECT_EQ(table->Devices(), (std::vector<std::string>{"capture 1 bus 1 device 2", "capture 1 bus 1 device 3",
                                                          "capture 2 bus 1 device 2"}));
    std::vector<std::pair<int64_t, int>> dueAndDevice;
    for (const Step& step : table->Steps()) dueAndDevice.emplace_back(step.dueUs, step.device);
    EXPECT_EQ(dueAndDevice, (std::vector<std::pair<int64_t, int>>{
                                {0, 0}, {200, 1}, {200, -1}, {400, -1}, {400, 2}, {400, -1}, {430, -1}}));
    EXPECT_EQ(table->PassUs(), 430);
}

TEST(UsbMessageTable, RefusesMoreThanTheLimitAheadOfMakingIt) {
    std::vector<UsbRecord> records;
    for (uint64_t id = 0; id < kMaxUsbReplayBytes / kMaxUsbTransferBytes; ++id)
        records.push_back(TransferOf(kBulk, id, {}, kMaxUsbTransferBytes));
    std::string error;
    EXPECT_FALSE(MessageTable::Make({CaptureOf({}), CaptureOf(records, "large")}, &error));
    EXPECT_EQ(error, "large: messages exceed 1073741824 bytes");
}

TEST(UsbLatencyHistogram, StaysWithinAnEighthAboveTheTrueValue) {
    for (uint64_t base = 1; base < (1ull << 62); base *= 2) {
        for (const uint64_t ns : {base - 1, base, base + base / 3, base + base / 8}) {
            LatencyHistogram histogram;
            histogram.Add(ns);
            EXPECT_EQ(histogram.Read().p50Ns, ns) << "never above the maximum";
            histogram.Add(UINT64_MAX);
            const UsbReplayLatency latency = histogram.Read();
            EXPECT_GE(latency.p50Ns, ns);
            EXPECT_LE(latency.p50Ns, ns + ns / 8);
            EXPECT_EQ(latency.maxNs, UINT64_MAX);
        }
    }
}

TEST(UsbLatencyHistogram, RanksTheSamplesOfSeveralThreadsAndLosesNone) {
    LatencyHistogram histogram;
    EXPECT_EQ(histogram.Read().samples + histogram.Read().p50Ns + histogram.Read().maxNs, 0u);
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 4; ++thread) {
        threads.emplace_back([&histogram] {
            for (int i = 0; i < 4900; ++i) histogram.Add(3);
            for (int i = 0; i < 50; ++i) histogram.Add(7);
            for (int i = 0; i < 50; ++i) histogram.Add(15);
        });
    }
    for (std::thread& thread : threads) thread.join();
    const UsbReplayLatency latency = histogram.Read();
    EXPECT_EQ(latency.samples, 20000u);
    EXPECT_EQ(latency.p50Ns, 3u);
    EXPECT_EQ(latency.p99Ns, 7u);
    EXPECT_EQ(latency.maxNs, 15u);
}

}  // namespace
