// Captures made on the spot, for tests of what reads and replays them.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "standin/usbd/UsbCapture.h"

namespace usbimage {

using Bytes = std::vector<uint8_t>;

inline std::string TempPath(const char* name) {
    return testing::TempDir() + std::to_string(getpid()) + name;
}

inline Bytes ReadFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(file), {});
}

// The file that holds these records, in the byte order of this machine.
inline Bytes ImageOf(const std::vector<UsbRecord>& records, uint32_t snapLength = 4096) {
    const std::string path = TempPath("image.pcap");
    std::string error;
    const auto writer = UsbCaptureWriter::Create(path, snapLength, &error);
    EXPECT_TRUE(writer) << error;
    for (const UsbRecord& record : records) writer->Append(record);
    EXPECT_TRUE(writer->Close(&error)) << error;
    const Bytes image = ReadFile(path);
    unlink(path.c_str());
    return image;
}

inline UsbCapture CaptureOf(const std::vector<UsbRecord>& records, const std::string& name = "image") {
    std::string error;
    const auto capture = UsbCapture::ReadBytes(ImageOf(records), name, &error);
    EXPECT_TRUE(capture) << error;
    return capture.value_or(UsbCapture());
}

// A completed IN transfer with that payload, of length bytes (0: those of the payload), of which the capture has the
// payload alone. The id tells it apart from others. The payload has to outlive it.
inline UsbRecord TransferOf(UsbTransferType type, uint64_t id, const Bytes& payload, uint32_t length = 0) {
    UsbRecord record;
    record.id = id;
    record.event = 'C';
    record.type = type;
    record.endpoint = 0x81;
    record.bus = 1;
    record.device = 2;
    record.length = length == 0 ? static_cast<uint32_t>(payload.size()) : length;
    record.capturedLength = static_cast<uint32_t>(payload.size());
    record.payload = payload;
    return record;
}

}  // namespace usbimage
