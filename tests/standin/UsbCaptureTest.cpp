#include "standin/usbd/UsbCapture.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <functional>

#include "tests/support/UsbImage.h"

namespace {

using usbimage::Bytes;
using usbimage::ImageOf;
using usbimage::ReadFile;
using usbimage::TempPath;

constexpr size_t kFileHeader = 24, kRecordHeader = 16;
constexpr size_t kUsbmon = kFileHeader + kRecordHeader;  // where the first record's usbmon header begins

template <typename T>
void Poke(Bytes& image, size_t at, T value) {
    memcpy(image.data() + at, &value, sizeof(value));
}

TEST(UsbCapture, WrittenAgainIsTheSameFile) {
    const Bytes file = ReadFile(SOURCE_FOLDER "/captures/sample.pcap");
    std::string error;
    auto capture = UsbCapture::ReadBytes(file, "image", &error);
    ASSERT_TRUE(capture) << error;
    const UsbCapture copy = *capture;
    capture.reset();
    EXPECT_TRUE(ImageOf(copy.Records(), kUsbmonHeaderSize + 1024) == file);
}

TEST(UsbCapture, RefusesABadFileWithTheReason) {
    struct Case {
        std::function<void(Bytes&)> spoil;
        std::string error;
    };
    const std::vector<Case> cases = {
        {[](Bytes& b) { Poke<uint32_t>(b, 20, 1); }, "link type 1 instead of 220"},
        {[](Bytes& b) { b.resize(kFileHeader + 9); }, "record 1: truncated dump file"},
        {[](Bytes& b) { b.pop_back(); }, "record 2: truncated dump file"},
        {[](Bytes& b) { Poke<uint32_t>(b, kFileHeader + 8, 63); },
         "record 1: shorter than the usbmon header: 63 of 64 bytes"},
        {[](Bytes& b) { Poke<uint32_t>(b, kFileHeader + 12, 68); },
         "record 1: inconsistent lengths: 69 bytes captured of 68"},
        {[](Bytes& b) { Poke<uint32_t>(b, kUsbmon + 36, 4); },
         "record 1: inconsistent lengths: 5 bytes of payload, captured length 4"},
        {[](Bytes& b) { Poke<uint32_t>(b, kUsbmon + 32, 4); },
         "record 1: inconsistent lengths: 5 bytes of payload in a transfer of 4"},
        {[](Bytes& b) { Poke<uint32_t>(b, kUsbmon + 60, 0x10000000); },
         "record 1: transfer of 4294967301 bytes is above the limit"},
        {[](Bytes& b) { b[kUsbmon + 9] = 4; }, "record 1: unknown transfer type 4"},
        {[](Bytes& b) { b[kUsbmon + 8] = 'X'; }, "record 1: unknown event 88"},
    };
    const Bytes payload(5, 7);
    const UsbRecord record = usbimage::TransferOf(UsbTransferType::kInterrupt, 1, payload);
    const Bytes good = ImageOf({record, record});
    for (const Case& c : cases) {
        Bytes image = good;
        c.spoil(image);
        std::string error;
        EXPECT_FALSE(UsbCapture::ReadBytes(image, "image", &error)) << c.error;
        EXPECT_TRUE(error.starts_with("image: " + c.error)) << error;
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
                          {kBulk, '<', 0, 4096, 0, 0},
                          {kControl, 0, 0, 18, 18, 18},
                          {kIsochronous, 0, 2, 100, 40, 132},
                          {kIsochronous, '<', 2, 100, 32, 32},
                          {kIsochronous, 0, 1, 10, 300, 300}}) {  // its data has gaps
        const Bytes payload(c.captured, 7);
        UsbRecord record = usbimage::TransferOf(c.type, 1, payload);
        record.dataFlag = c.dataFlag;
        record.isoDescriptors = c.isoDescriptors;
        record.length = c.length;
        std::string error;
        const auto capture = UsbCapture::ReadBytes(ImageOf({record}), "image", &error);
        ASSERT_TRUE(capture) << error;
        EXPECT_EQ(capture->Records()[0].FullPayloadSize(), c.full) << c.length << " " << c.captured;
    }
}

TEST(UsbCaptureWriter, ReportsWhatCannotBeWritten) {
    std::string error;
    EXPECT_FALSE(UsbCaptureWriter::Create(TempPath("none/x.pcap"), 4096, &error));
    EXPECT_NE(error.find("No such file or directory"), std::string::npos) << error;
    const auto writer = UsbCaptureWriter::Create("/dev/full", 4096, &error);
    ASSERT_TRUE(writer) << error;
    writer->Append(UsbRecord());
    EXPECT_FALSE(writer->Close(&error));
    EXPECT_EQ(error, "/dev/full: No space left on device");
}

TEST(SampleCapture, IsWhatItsProgramWrites) {
    const std::string path = TempPath("sample.pcap");
    ASSERT_EQ(system((std::string(BUILD_FOLDER "/bin/make-sample-capture ") + path).c_str()), 0);
    EXPECT_TRUE(ReadFile(path) == ReadFile(SOURCE_FOLDER "/captures/sample.pcap"));
    unlink(path.c_str());
    EXPECT_NE(system(BUILD_FOLDER "/bin/make-sample-capture 2>&-"), 0);
}

}  // namespace
