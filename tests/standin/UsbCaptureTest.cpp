#include "standin/usbd/UsbCapture.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <tuple>

#include "tests/support/UsbImage.h"

namespace {

using usbimage::Bytes;
using usbimage::ImageOf;
using usbimage::ReadFile;
using usbimage::TempPath;

constexpr size_t kFileHeader = 24, kRecordHeader = 16;
constexpr size_t kUsbmon = kFileHeader + kRecordHeader;  // where the first record's usbmon header begins

const Bytes kPayload = {0xde, 0xad, 0xbe, 0xef, 0x05};

UsbRecord SampleRecord() {
    UsbRecord record;
    record.id = 0x0102030405060708;
    record.event = 'C';
    record.type = UsbTransferType::kInterrupt;
    record.endpoint = 0x83;
    record.device = 9;
    record.bus = 0x0a0b;
    record.setupFlag = 0;
    record.dataFlag = '=';
    record.seconds = 0x1112131415;
    record.microseconds = 0x16171819;
    record.status = -32;
    record.length = 5;
    record.capturedLength = 69;
    record.setup = {1, 2, 3, 4, 5, 6, 7, 8};
    record.interval = 0x21222324;
    record.startFrame = 0x31323334;
    record.transferFlags = 0x41424344;
    record.isoDescriptors = 0;
    record.timestampUs = 1700000000000123;
    record.payload = kPayload;
    return record;
}

auto HeaderFieldsOf(const UsbRecord& record) {
    return std::tie(record.id, record.event, record.type, record.endpoint, record.device, record.bus, record.setupFlag,
                    record.dataFlag, record.seconds, record.microseconds, record.status, record.length,
                    record.capturedLength, record.setup, record.interval, record.startFrame, record.transferFlags,
                    record.isoDescriptors);
}

template <typename T>
void Poke(Bytes& image, size_t at, T value) {
    memcpy(image.data() + at, &value, sizeof(value));
}

// The image of one record with its time in nanoseconds, a little later than it was in microseconds.
Bytes Nanoseconds(Bytes image) {
    uint32_t us;
    memcpy(&us, image.data() + kFileHeader + 4, sizeof(us));
    Poke<uint32_t>(image, 0, 0xa1b23c4d);
    Poke<uint32_t>(image, kFileHeader + 4, us * 1000 + 999);
    return image;
}

// The image of one record as a machine of the other byte order would have written it.
Bytes Swapped(Bytes image) {
    const auto swap = [&image](size_t at, std::initializer_list<size_t> sizes) {
        for (const size_t size : sizes) {
            std::reverse(image.begin() + static_cast<long>(at), image.begin() + static_cast<long>(at + size));
            at += size;
        }
    };
    swap(0, {4, 2, 2, 4, 4, 4, 4});
    swap(kFileHeader, {4, 4, 4, 4});
    swap(kUsbmon, {8});
    swap(kUsbmon + 12, {2});
    swap(kUsbmon + 16, {8, 4, 4, 4, 4});
    swap(kUsbmon + 48, {4, 4, 4, 4});
    return image;
}

TEST(UsbCapture, ReadsEveryFieldInEitherByteOrderAndUnitOfTime) {
    const UsbRecord expected = SampleRecord();
    const Bytes plain = ImageOf({expected});
    for (const Bytes& image : {plain, Swapped(plain), Nanoseconds(plain), Swapped(Nanoseconds(plain))}) {
        std::string error;
        const auto capture = UsbCapture::ReadBytes(image, "image", &error);
        ASSERT_TRUE(capture) << error;
        ASSERT_EQ(capture->Records().size(), 1u);
        const UsbRecord& read = capture->Records()[0];
        EXPECT_TRUE(HeaderFieldsOf(read) == HeaderFieldsOf(expected));
        EXPECT_EQ(read.timestampUs, expected.timestampUs);
        EXPECT_EQ(Bytes(read.payload.begin(), read.payload.end()), kPayload);
        EXPECT_EQ(read.header.size(), kUsbmonHeaderSize);
    }
}

TEST(UsbCapture, RefusesABadFileWithTheReason) {
    struct Case {
        const char* what;
        std::function<void(Bytes&)> spoil;
        const char* error;
    };
    const std::vector<Case> cases = {
        {"empty", [](Bytes& b) { b.clear(); }, "image: no data"},
        {"other magic", [](Bytes& b) { b[0] ^= 0xff; }, "image: unknown file format"},
        {"ends in the file header", [](Bytes& b) { b.resize(20); }, "image: truncated dump file"},
        {"Ethernet", [](Bytes& b) { Poke<uint32_t>(b, 20, 1); }, "image: link type 1 instead of 220"},
        {"ends in a record header", [](Bytes& b) { b.resize(kFileHeader + 9); },
         "image: record 1: truncated dump file"},
        {"ends in a record", [](Bytes& b) { b.pop_back(); }, "image: record 2: truncated dump file"},
        {"record without a header",
         [](Bytes& b) {
             Poke<uint32_t>(b, kFileHeader + 8, 63);
             b.resize(kUsbmon + 63);
         },
         "image: record 1: shorter than the usbmon header: 63 of 64 bytes"},
        {"more captured than on the wire", [](Bytes& b) { Poke<uint32_t>(b, kFileHeader + 12, 68); },
         "image: record 1: inconsistent lengths: 69 bytes captured of 68"},
        {"captured length too small", [](Bytes& b) { Poke<uint32_t>(b, kUsbmon + 36, 4); },
         "image: record 1: inconsistent lengths: 5 bytes of payload, captured length 4"},
        {"transfer too small", [](Bytes& b) { Poke<uint32_t>(b, kUsbmon + 32, 4); },
         "image: record 1: inconsistent lengths: 5 bytes of payload in a transfer of 4"},
        {"transfer too large", [](Bytes& b) { Poke<uint32_t>(b, kUsbmon + 32, 0xffffffff); },
         "image: record 1: transfer of 4294967295 bytes is above the limit"},
        {"descriptors too large", [](Bytes& b) { Poke<uint32_t>(b, kUsbmon + 60, 0x10000000); },
         "image: record 1: transfer of 4294967301 bytes is above the limit"},
        {"type", [](Bytes& b) { b[kUsbmon + 9] = 4; }, "image: record 1: unknown transfer type 4"},
        {"event", [](Bytes& b) { b[kUsbmon + 8] = 'X'; }, "image: record 1: unknown event 88"},
    };
    const Bytes good = ImageOf({SampleRecord(), SampleRecord()});
    for (const Case& c : cases) {
        Bytes image = good;
        c.spoil(image);
        std::string error;
        EXPECT_FALSE(UsbCapture::ReadBytes(image, "image", &error)) << c.what;
        EXPECT_EQ(error.substr(0, strlen(c.error)), c.error) << c.what << ": " << error;
    }
}

TEST(UsbCapture, KnowsTheSizeAheadOfTheCut) {
    using enum UsbTransferType;
    struct Case {
        UsbTransferType type;
        uint8_t dataFlag;
        uint32_t isoDescriptors, length, captured, full;
    };
    for (const Case& c : {Case{kBulk, '=', 0, 65536, 256, 65536},
                          {kBulk, 0, 0, 65536, 65536, 65536},
                          {kBulk, '<', 0, 4096, 0, 0},
                          {kBulk, '>', 0, 512, 0, 0},
                          {kControl, 0, 0, 18, 18, 18},
                          {kIsochronous, 0, 2, 100, 40, 132},
                          {kIsochronous, '<', 2, 100, 32, 32},
                          {kIsochronous, 0, 1, 10, 300, 300}}) {
        const Bytes payload(c.captured, 7);
        UsbRecord record = usbimage::TransferOf(c.type, 1, payload);
        record.dataFlag = c.dataFlag;
        record.isoDescriptors = c.isoDescriptors;
        record.length = c.length;
        std::string error;
        const auto capture = UsbCapture::ReadBytes(ImageOf({record}, 1 << 20), "image", &error);
        ASSERT_TRUE(capture) << error;
        EXPECT_EQ(capture->Records()[0].FullPayloadSize(), c.full) << c.length << " " << c.captured;
    }
}

// The data of a completed isochronous transfer may leave gaps, which count for the capture but not for the bus.
TEST(UsbCapture, AcceptsIsochronousDataThatSpansMoreThanWasTransferred) {
    const Bytes payload(300, 7);
    UsbRecord record = usbimage::TransferOf(UsbTransferType::kIsochronous, 1, payload, 10);
    record.isoDescriptors = 1;
    Bytes image = ImageOf({record});
    Poke<uint32_t>(image, kFileHeader + 12, kUsbmonHeaderSize + 26);
    std::string error;
    const auto capture = UsbCapture::ReadBytes(image, "image", &error);
    ASSERT_TRUE(capture) << error;
    EXPECT_EQ(capture->Records()[0].FullPayloadSize(), 300u);
}

TEST(UsbCapture, ACopyKeepsTheBytes) {
    auto original = std::make_unique<UsbCapture>(usbimage::CaptureOf({SampleRecord()}));
    const UsbCapture copy = *original;
    original.reset();
    const UsbRecord& record = copy.Records()[0];
    EXPECT_EQ(Bytes(record.payload.begin(), record.payload.end()), kPayload);
}

TEST(UsbCaptureWriter, ReportsWhatCannotBeWritten) {
    std::string error;
    EXPECT_FALSE(UsbCaptureWriter::Create(TempPath("none/x.pcap"), 4096, &error));
    EXPECT_NE(error.find("No such file or directory"), std::string::npos) << error;

    const auto writer = UsbCaptureWriter::Create("/dev/full", 4096, &error);
    ASSERT_TRUE(writer) << error;
    writer->Append(SampleRecord());
    EXPECT_FALSE(writer->Close(&error));
    EXPECT_EQ(error, "/dev/full: No space left on device");
    EXPECT_FALSE(writer->Close(&error));
}

TEST(SampleCapture, IsWhatItsProgramWrites) {
    const std::string path = TempPath("sample.pcap");
    ASSERT_EQ(system((std::string(BUILD_FOLDER "/bin/make-sample-capture ") + path).c_str()), 0);
    EXPECT_TRUE(ReadFile(path) == ReadFile(SOURCE_FOLDER "/captures/sample.pcap"));
    unlink(path.c_str());
    EXPECT_NE(system(BUILD_FOLDER "/bin/make-sample-capture 2>&-"), 0);
}

}  // namespace
