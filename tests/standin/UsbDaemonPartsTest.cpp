// The parts that the replaying daemon is made of: message table, histogram.
#include <gtest/gtest.h>

#include "standin/usbd/LatencyHistogram.h"
#include "standin/usbd/MessageTable.h"
#include "tests/support/UsbImage.h"

namespace {

using namespace usbd;
using usbimage::Bytes;
using usbimage::CaptureOf;
using usbimage::TransferOf;
using enum UsbTransferType;

TEST(UsbMessageTable, FindsExactlyWhatWasMadeOfTheTransfers) {
    const Bytes payload(400, 7);
    const UsbRecord bulk = TransferOf(kBulk, 4, payload);
    const UsbCapture capture = CaptureOf({TransferOf(kIsochronous, 1, payload), TransferOf(kInterrupt, 2, payload),
                                          bulk, TransferOf(kControl, 3, payload), bulk});
    const auto table = MessageTable::Make({capture}, nullptr);
    const std::vector<Step>& steps = table->Steps();
    ASSERT_EQ(steps.size(), 5u);
    EXPECT_EQ(steps[2].message, steps[4].message) << "equal records share a message";
    EXPECT_EQ(steps[3].message->kind, MessageKind::kPost);
    const MessageKind kinds[] = {MessageKind::kFast, MessageKind::kHid, MessageKind::kFast};
    for (size_t i = 0; i < 3; ++i) {
        const UsbRecord& record = capture.Records()[i];
        std::string expected(record.header.begin(), record.header.end());
        expected.append(payload.begin(), payload.end());
        EXPECT_EQ(table->Find(kinds[i], expected), steps[i].message) << i;
        EXPECT_FALSE(table->Find(MessageKind::kPost, expected)) << i;
        expected.back() ^= 1;
        EXPECT_FALSE(table->Find(kinds[i], expected)) << i;
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
    const auto table = MessageTable::Make({first, second}, nullptr);
    EXPECT_EQ(table->Devices(), (std::vector<std::string>{"capture 1 bus 1 device 2", "capture 1 bus 1 device 3",
                                                          "capture 2 bus 1 device 2"}));
    std::vector<std::pair<int64_t, int>> dueAndDevice;
    for (const Step& step : table->Steps()) dueAndDevice.emplace_back(step.dueUs, step.device);
    EXPECT_EQ(dueAndDevice, (std::vector<std::pair<int64_t, int>>{
                                {0, 0}, {200, 1}, {200, -1}, {400, -1}, {400, 2}, {400, -1}, {430, -1}}));
    EXPECT_EQ(table->PassUs(), 430);
}

TEST(UsbLatencyHistogram, StaysWithinAnEighthAboveTheTrueValue) {
    for (uint64_t base = 1; base < (1ull << 62); base *= 2) {
        for (const uint64_t ns : {base - 1, base, base + base / 3, base + base / 8}) {
            LatencyHistogram histogram;
            histogram.Add(ns);
            EXPECT_EQ(histogram.Read().p50Ns, ns) << "never above the maximum";
            histogram.Add(UINT64_MAX);
            EXPECT_GE(histogram.Read().p50Ns, ns);
            EXPECT_LE(histogram.Read().p50Ns, ns + ns / 8);
        }
    }
}

TEST(UsbLatencyHistogram, RanksTheSamples) {
    LatencyHistogram histogram;
    for (int i = 0; i < 5000; ++i) histogram.Add(i < 2499 ? 3 : i < 4949 ? 7 : i < 4999 ? 9 : 15);
    const UsbReplayLatency latency = histogram.Read();
    EXPECT_EQ(latency.samples, 5000u);
    EXPECT_EQ(latency.p50Ns, 7u);
    EXPECT_EQ(latency.p99Ns, 9u);
    EXPECT_EQ(latency.maxNs, 15u);
}

}  // namespace
