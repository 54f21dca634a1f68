// The capture reader over arbitrary file images. What it accepts must be whole: each span inside the capture's own
// bytes, which the address sanitizer sees when they are read, and each size within the limits that the replay relies
// on.
#include <cstdlib>
#include <numeric>

#include "standin/usbd/UsbCapture.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string error;
    const std::optional<UsbCapture> capture = UsbCapture::ReadBytes({data, size}, "image", &error);
    if (!capture) {
        if (error.empty()) abort();
        return 0;
    }
    volatile uint64_t sum = 0;
    for (const UsbRecord& record : capture->Records()) {
        sum = sum + std::accumulate(record.header.begin(), record.header.end(), uint64_t{0}) +
              std::accumulate(record.payload.begin(), record.payload.end(), uint64_t{0});
        if (record.header.size() != kUsbmonHeaderSize || record.payload.size() > size ||
            record.FullPayloadSize() < record.payload.size() ||
            record.FullPayloadSize() > kMaxUsbTransferBytes + record.payload.size())
            abort();
    }
    return 0;
}
