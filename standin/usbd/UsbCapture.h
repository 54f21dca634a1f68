// USB captures on disk: classic pcap files of link type 220, each record a 64-byte usbmon header and what was captured
// of the transfer's data. A reader that checks everything it hands out, and a writer for making captures.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

inline constexpr int kUsbCaptureLinkType = 220;
inline constexpr uint32_t kUsbmonHeaderSize = 64;
inline constexpr uint32_t kUsbIsoDescriptorSize = 16;        // of a descriptor ahead of the data of isochronous records
inline constexpr uint32_t kMaxUsbTransferBytes = 64u << 20;  // a record that claims more is refused

enum class UsbTransferType : uint8_t { kIsochronous = 0, kInterrupt = 1, kControl = 2, kBulk = 3 };

// One event of one transfer. The fields are those of the usbmon header, in the byte order of this machine.
struct UsbRecord {
    uint64_t id = 0;   // pairs a completion with its submission
    char event = 'S';  // 'S' submit, 'C' complete, 'E' submit error
    UsbTransferType type = UsbTransferType::kControl;
    uint8_t endpoint = 0;  // bit 7 set for IN
    uint8_t device = 0;
    uint16_t bus = 0;
    uint8_t setupFlag = '-';  // 0: setup is present
    uint8_t dataFlag = 0;     // 0 or '=': the data belongs to this record; else it carries none
    int64_t seconds = 0;
    int32_t microseconds = 0;
    int32_t status = 0;           // 0 or a negative errno
    uint32_t length = 0;          // bytes of the transfer at this event, captured or not
    uint32_t capturedLength = 0;  // as written; some writers count the header too
    std::array<uint8_t, 8> setup{};
    int32_t interval = 0;
    int32_t startFrame = 0;
    uint32_t transferFlags = 0;
    uint32_t isoDescriptors = 0;

    int64_t timestampUs = 0;           // of the pcap record, since 1970
    std::span<const uint8_t> header;   // the 64 bytes as captured
    std::span<const uint8_t> payload;  // isochronous descriptors, then data; owned by the capture

    bool HasSetup() const { return setupFlag == 0; }
    bool HasData() const { return dataFlag == 0 || dataFlag == '='; }

    // Bytes that payload had before the capture cut it; never less than payload.size().
    uint32_t FullPayloadSize() const;
};

// A capture in memory. Copies share the bytes.
class UsbCapture {
public:
    // Reads a whole file, in either byte order. Null on failure with the reason in error: the file can't be opened or
    // isn't pcap, its link type is foreign, it ends within a record, a record is shorter than the usbmon header, its
    // type or event is unknown or its lengths contradict each other. Nothing is returned of a file with one bad record.
    static std::optional<UsbCapture> Read(const std::string& path, std::string* error);

    // The same for a file image in memory; name stands for the path in error texts.
    static std::optional<UsbCapture> ReadBytes(std::span<const uint8_t> image, const std::string& name,
                                               std::string* error);

    const std::string& Name() const { return name; }
    const std::vector<UsbRecord>& Records() const { return records; }

private:
    struct Reader;

    std::string name;
    std::vector<UsbRecord> records;
    std::shared_ptr<const std::vector<uint8_t>> bytes;  // what the spans of records point into
};

// Writes a capture record by record, in the byte order of this machine.
class UsbCaptureWriter {
public:
    // Creates or replaces the file. Null on failure with the reason in error.
    static std::unique_ptr<UsbCaptureWriter> Create(const std::string& path, uint32_t snapLength, std::string* error);
    ~UsbCaptureWriter();
    UsbCaptureWriter(const UsbCaptureWriter&) = delete;
    UsbCaptureWriter& operator=(const UsbCaptureWriter&) = delete;

    // Appends a record made of the fields and payload of record, at record.timestampUs; record.header isn't read. The
    // pcap header keeps FullPayloadSize() as the size on the wire.
    void Append(const UsbRecord& record);

    // Completes the file. False with the reason in error if any part of it couldn't be written.
    bool Close(std::string* error);

private:
    struct Output;
    explicit UsbCaptureWriter(std::unique_ptr<Output> out);

    std::unique_ptr<Output> output;
};
