// make-sample-capture FILE: writes the capture that ships with the programs, captures/sample.pcap. The same bytes each
// time: three made-up devices on one bus, a disk, a keyboard and a headset, each enumerated and then used for a moment.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "standin/usbd/UsbCapture.h"

namespace {

constexpr uint32_t kCutAt = 1024;  // bytes of payload that a record keeps
constexpr int64_t kStartSeconds = 1700000000;
constexpr uint8_t kDisk = 2, kKeyboard = 3, kHeadset = 4;
constexpr uint8_t kIn = 0x80;

using Bytes = std::vector<uint8_t>;
using Setup = std::array<uint8_t, 8>;

void Put(Bytes& bytes, uint64_t value, int size) {
    for (int i = 0; i < size; ++i) bytes.push_back(static_cast<uint8_t>(value >> (8 * i)));
}

Bytes Pattern(uint32_t size, uint32_t seed) {
    Bytes bytes(size);
    for (uint8_t& byte : bytes) {
        seed = seed * 1664525u + 1013904223u;
        byte = static_cast<uint8_t>(seed >> 24);
    }
    return bytes;
}

// Writes transfers as pairs of a submission and a completion, in the manner of a kernel's monitor.
class Script {
public:
    explicit Script(UsbCaptureWriter& output) : writer(output) {}

    void Control(uint8_t device, const Setup& setup, const Bytes& data) {
        UsbRecord record = Transfer(UsbTransferType::kControl, device, setup[0] & kIn);
        record.setup = setup;
        record.setupFlag = 0;
        Exchange(record, data, setup[6] | setup[7] << 8);
    }

    // asked: bytes that an IN transfer asks for
    void Bulk(uint8_t endpoint, const Bytes& data, uint32_t asked = 0) {
        Exchange(Transfer(UsbTransferType::kBulk, kDisk, endpoint), data, asked);
    }

    void Interrupt(const Bytes& report) {
        UsbRecord record = Transfer(UsbTransferType::kInterrupt, kKeyboard, 1 | kIn);
        record.interval = 8;
        Exchange(record, report, 8);
    }

    void Isochronous(uint8_t endpoint, const Bytes& data) {
        UsbRecord record = Transfer(UsbTransferType::kIsochronous, kHeadset, endpoint);
        record.interval = 1;
        record.startFrame = frame++;
        record.isoDescriptors = 1;
        Exchange(record, data, static_cast<uint32_t>(data.size()));
    }

    void Pause(uint32_t us) { nowUs += us; }

private:
    UsbRecord Transfer(UsbTransferType type, uint8_t device, uint8_t endpoint) {
        UsbRecord record;
        record.id = 0xffff888100000000ull + 0xc0 * ++transfers;
        record.type = type;
        record.bus = 1;
        record.device = device;
        record.endpoint = endpoint;
        return record;
    }

    void Exchange(UsbRecord record, const Bytes& data, uint32_t asked) {
        const bool in = record.endpoint & kIn;
        record.status = -115;  // EINPROGRESS
        Write(record, in ? Bytes() : data, in ? asked : static_cast<uint32_t>(data.size()), in ? '<' : 0);
        nowUs += 40 + data.size() / 8;
        record.event = 'C';
        record.status = 0;
        record.setup = {};
        record.setupFlag = '-';
        Write(record, in ? data : Bytes(), static_cast<uint32_t>(data.size()), in ? 0 : '>');
        nowUs += 60;
    }

    void Write(UsbRecord& record, const Bytes& data, uint32_t length, uint8_t dataFlag) {
        Bytes payload;
        for (uint32_t i = 0; i < record.isoDescriptors; ++i) {
            for (const uint32_t word : {0u, 0u, length, 0u}) Put(payload, word, 4);
        }
        payload.insert(payload.end(), data.begin(), data.end());
        record.payload = payload;
        record.length = length;
        record.dataFlag = length == 0 ? '<' : dataFlag;
        record.capturedLength = std::min(static_cast<uint32_t>(payload.size()), kCutAt);
        record.timestampUs = kStartSeconds * 1000000 + nowUs;
        record.seconds = record.timestampUs / 1000000;
        record.microseconds = static_cast<int32_t>(record.timestampUs % 1000000);
        writer.Append(record);
    }

    UsbCaptureWriter& writer;
    int64_t nowUs = 0;
    uint64_t transfers = 0;
    int32_t frame = 100;
};

// Device descriptor, configuration descriptor (its first nine bytes and what the size says of the rest) and choice of
// the configuration.
void Enumerate(Script& script, uint8_t device, uint16_t product, uint8_t configurationSize) {
    const uint8_t low = static_cast<uint8_t>(product), high = static_cast<uint8_t>(product >> 8);
    script.Control(device, {0x80, 6, 0, 1, 0, 0, 18, 0},
                   {18, 1, 0, 2, 0, 0, 0, 64, 0x09, 0x12, low, high, 0, 1, 1, 2, 3, 1});
    Bytes configuration = {9, 2, configurationSize, 0, 1, 1, 0, 0x80, 50};
    const Bytes rest = Pattern(configurationSize - 9u, product);
    configuration.insert(configuration.end(), rest.begin(), rest.end());
    script.Control(device, {0x80, 6, 0, 2, 0, 0, configurationSize, 0}, configuration);
    script.Control(device, {0, 9, 1, 0, 0, 0, 0, 0}, {});
    script.Pause(2000);
}

// One command of the bulk-only transport: command wrapper, data, status wrapper.
void Scsi(Script& script, uint32_t tag, bool in, uint8_t operation, uint32_t block, uint32_t size) {
    Bytes command = {'U', 'S', 'B', 'C'};
    Put(command, tag, 4);
    Put(command, size, 4);
    const uint32_t blocks = size / 512;
    for (const uint32_t byte : {in ? 0x80u : 0u, 0u, 10u, uint32_t{operation}, 0u, block >> 24, block >> 16, block >> 8,
                                block, 0u, blocks >> 8, blocks, 0u})
        Put(command, byte, 1);
    command.resize(31);
    script.Bulk(2, command);

    script.Bulk(in ? 1 | kIn : 2, Pattern(size, tag), size);

    Bytes status = {'U', 'S', 'B', 'S'};
    Put(status, tag, 4);
    Put(status, 0, 5);
    script.Bulk(1 | kIn, status, 13);
    script.Pause(500);
}

void Perform(Script& script) {
    constexpr uint8_t kRead = 0x28, kWrite = 0x2a;
    Enumerate(script, kDisk, 0x0101, 32);
    Scsi(script, 1, true, kRead, 0, 512);
    Scsi(script, 2, true, kRead, 8, 4096);
    Scsi(script, 3, false, kWrite, 64, 512);
    Enumerate(script, kKeyboard, 0x0102, 34);
    for (const uint8_t key : {0x04, 0, 0x05, 0, 0x28, 0}) {
        script.Interrupt({0, 0, key, 0, 0, 0, 0, 0});
        script.Pause(8000);
    }
    Scsi(script, 4, true, kRead, 128, 65536);
    Scsi(script, 5, false, kWrite, 256, 16384);
    Enumerate(script, kHeadset, 0x0103, 110);
    for (uint32_t i = 0; i < 3; ++i) {
        script.Isochronous(1, Pattern(192, 1000 + i));
        script.Isochronous(2 | kIn, Pattern(96, 2000 + i));
        script.Pause(800);
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        fprintf(stderr, "usage: make-sample-capture FILE\n");
        return 2;
    }
    std::string error;
    const std::unique_ptr<UsbCaptureWriter> writer =
        UsbCaptureWriter::Create(argv[1], kUsbmonHeaderSize + kCutAt, &error);
    if (writer) {
        Script script(*writer);
        Perform(script);
        if (writer->Close(&error)) return 0;
    }
    fprintf(stderr, "make-sample-capture: %s\n", error.c_str());
    return 1;
}
