// A record header of libpcap holds a timeval. It has to have the width that the platform gives by default, as libpcap
// was built with it, whatever the rest of the system asks for.
#undef _TIME_BITS

#include "standin/usbd/UsbCapture.h"

#include <pcap.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>

namespace {

// The header as it stands in a record; pcap.h has it in a form that hides the setup bytes in a union.
struct UsbmonHeader {
    uint64_t id;
    uint8_t event;
    uint8_t type;
    uint8_t endpoint;
    uint8_t device;
    uint16_t bus;
    uint8_t setupFlag;
    uint8_t dataFlag;
    int64_t seconds;
    int32_t microseconds;
    int32_t status;
    uint32_t length;
    uint32_t capturedLength;
    uint8_t setup[8];
    int32_t interval;
    int32_t startFrame;
    uint32_t transferFlags;
    uint32_t isoDescriptors;
};
static_assert(sizeof(UsbmonHeader) == kUsbmonHeaderSize && offsetof(UsbmonHeader, seconds) == 16 &&
              offsetof(UsbmonHeader, setup) == 40 && offsetof(UsbmonHeader, interval) == 48);

struct FileCloser {
    void operator()(FILE* file) const { fclose(file); }
};
struct PcapCloser {
    void operator()(pcap_t* pcap) const { pcap_close(pcap); }
};
using FilePtr = std::unique_ptr<FILE, FileCloser>;
using PcapPtr = std::unique_ptr<pcap_t, PcapCloser>;

bool Fail(std::string* error, const std::string& text) {
    if (error) *error = text;
    return false;
}

uint64_t IsoDescriptorBytes(const UsbRecord& record) {
    return uint64_t{record.isoDescriptors} * kUsbIsoDescriptorSize;
}

void ParseHeader(const uint8_t* bytes, UsbRecord& record) {
    UsbmonHeader header;
    memcpy(&header, bytes, sizeof(header));
    record.id = header.id;
    record.event = static_cast<char>(header.event);
    record.type = static_cast<UsbTransferType>(header.type);
    record.endpoint = header.endpoint;
    record.device = header.device;
    record.bus = header.bus;
    record.setupFlag = header.setupFlag;
    record.dataFlag = header.dataFlag;
    record.seconds = header.seconds;
    record.microseconds = header.microseconds;
    record.status = header.status;
    record.length = header.length;
    record.capturedLength = header.capturedLength;
    memcpy(record.setup.data(), header.setup, record.setup.size());
    record.interval = header.interval;
    record.startFrame = header.startFrame;
    record.transferFlags = header.transferFlags;
    record.isoDescriptors = header.isoDescriptors;
}

UsbmonHeader MakeHeader(const UsbRecord& record) {
    UsbmonHeader header;
    header.id = record.id;
    header.event = static_cast<uint8_t>(record.event);
    header.type = static_cast<uint8_t>(record.type);
    header.endpoint = record.endpoint;
    header.device = record.device;
    header.bus = record.bus;
    header.setupFlag = record.setupFlag;
    header.dataFlag = record.dataFlag;
    header.seconds = record.seconds;
    header.microseconds = record.microseconds;
    header.status = record.status;
    header.length = record.length;
    header.capturedLength = record.capturedLength;
    memcpy(header.setup, record.setup.data(), sizeof(header.setup));
    header.interval = record.interval;
    header.startFrame = record.startFrame;
    header.transferFlags = record.transferFlags;
    header.isoDescriptors = record.isoDescriptors;
    return header;
}

// Empty if the record makes sense, else what is wrong with it.
std::string Contradiction(const UsbRecord& record, uint32_t payloadSize, uint32_t wireSize) {
    const uint64_t full = IsoDescriptorBytes(record) + record.length;
    if (static_cast<uint8_t>(record.type) > static_cast<uint8_t>(UsbTransferType::kBulk))
        return "unknown transfer type " + std::to_string(static_cast<int>(record.type));
    if (record.event != 'S' && record.event != 'C' && record.event != 'E')
        return "unknown event " + std::to_string(static_cast<uint8_t>(record.event));
    // The data of isochronous packets may lie apart and span more than the bytes transferred.
    const bool spread = record.type == UsbTransferType::kIsochronous;
    if (!spread && kUsbmonHeaderSize + payloadSize > wireSize)
        return "inconsistent lengths: " + std::to_string(kUsbmonHeaderSize + payloadSize) + " bytes captured of " +
               std::to_string(wireSize);
    if (payloadSize > record.capturedLength)
        return "inconsistent lengths: " + std::to_string(payloadSize) + " bytes of payload, captured length " +
               std::to_string(record.capturedLength);
    if (!spread && record.HasData() && payloadSize > full)
        return "inconsistent lengths: " + std::to_string(payloadSize) + " bytes of payload in a transfer of " +
               std::to_string(full);
    if (record.HasData() && full > kMaxUsbTransferBytes)
        return "transfer of " + std::to_string(full) + " bytes is above the limit of " +
               std::to_string(kMaxUsbTransferBytes);
    return {};
}

}  // namespace

uint32_t UsbRecord::FullPayloadSize() const {
    const uint32_t captured = static_cast<uint32_t>(payload.size());
    if (!HasData()) return captured;
    return std::max(captured, static_cast<uint32_t>(IsoDescriptorBytes(*this)) + length);
}

// Records are collected in one growing buffer; the spans into it are set once it has its final place.
struct UsbCapture::Reader {
    UsbCapture capture;
    std::vector<uint8_t> bytes;
    std::vector<uint32_t> sizes;  // header and payload of each record

    bool ReadFile(FilePtr file, std::string* error);
    bool ReadRecords(pcap_t* pcap, std::string* error);
    bool AddRecord(const pcap_pkthdr& packet, const uint8_t* data, std::string* error);
    UsbCapture Finish();
};

bool UsbCapture::Reader::ReadFile(FilePtr file, std::string* error) {
    char reason[PCAP_ERRBUF_SIZE] = "";
    PcapPtr pcap(pcap_fopen_offline(file.get(), reason));
    if (!pcap) return Fail(error, capture.name + ": " + reason);
    static_cast<void>(file.release());  // pcap closes it
    if (const int linkType = pcap_datalink(pcap.get()); linkType != kUsbCaptureLinkType)
        return Fail(error, capture.name + ": link type " + std::to_string(linkType) + " instead of " +
                               std::to_string(kUsbCaptureLinkType));
    return ReadRecords(pcap.get(), error);
}

bool UsbCapture::Reader::ReadRecords(pcap_t* pcap, std::string* error) {
    for (;;) {
        pcap_pkthdr* packet = nullptr;
        const u_char* data = nullptr;
        const int result = pcap_next_ex(pcap, &packet, &data);
        if (result == PCAP_ERROR_BREAK) return true;
        std::string reason;
        if (result != 1) reason = pcap_geterr(pcap);
        if (result == 1 && AddRecord(*packet, data, &reason)) continue;
        return Fail(error, capture.name + ": record " + std::to_string(sizes.size() + 1) + ": " + reason);
    }
}

bool UsbCapture::Reader::AddRecord(const pcap_pkthdr& packet, const uint8_t* data, std::string* error) {
    if (packet.caplen < kUsbmonHeaderSize)
        return Fail(error, "shorter than the usbmon header: " + std::to_string(packet.caplen) + " of 64 bytes");
    UsbRecord record;
    ParseHeader(data, record);
    const std::string contradiction = Contradiction(record, packet.caplen - kUsbmonHeaderSize, packet.len);
    if (!contradiction.empty()) return Fail(error, contradiction);
    record.timestampUs = int64_t{packet.ts.tv_sec} * 1000000 + packet.ts.tv_usec;
    capture.records.push_back(record);
    sizes.push_back(packet.caplen);
    bytes.insert(bytes.end(), data, data + packet.caplen);
    return true;
}

UsbCapture UsbCapture::Reader::Finish() {
    auto shared = std::make_shared<const std::vector<uint8_t>>(std::move(bytes));
    const uint8_t* next = shared->data();
    for (size_t i = 0; i < sizes.size(); ++i) {
        capture.records[i].header = {next, kUsbmonHeaderSize};
        capture.records[i].payload = {next + kUsbmonHeaderSize, sizes[i] - kUsbmonHeaderSize};
        next += sizes[i];
    }
    capture.bytes = std::move(shared);
    return std::move(capture);
}

std::optional<UsbCapture> UsbCapture::Read(const std::string& path, std::string* error) {
    Reader reader;
    reader.capture.name = path;
    FilePtr file(fopen(path.c_str(), "rbe"));
    if (!file) {
        Fail(error, path + ": " + strerror(errno));
        return std::nullopt;
    }
    if (!reader.ReadFile(std::move(file), error)) return std::nullopt;
    return reader.Finish();
}

std::optional<UsbCapture> UsbCapture::ReadBytes(std::span<const uint8_t> image, const std::string& name,
                                                std::string* error) {
    Reader reader;
    reader.capture.name = name;
    // The stream is opened for reading only, so the image isn't written to.
    FilePtr file(image.empty() ? nullptr : fmemopen(const_cast<uint8_t*>(image.data()), image.size(), "rb"));
    if (!file) {
        Fail(error, name + ": " + (image.empty() ? "no data" : strerror(errno)));
        return std::nullopt;
    }
    if (!reader.ReadFile(std::move(file), error)) return std::nullopt;
    return reader.Finish();
}

struct UsbCaptureWriter::Output {
    std::string path;
    PcapPtr pcap;
    pcap_dumper_t* dumper = nullptr;
    uint32_t snapLength = 0;
    int failure = 0;  // errno of the first write that failed
    std::vector<uint8_t> scratch;

    ~Output() {
        if (dumper) pcap_dump_close(dumper);
    }
};

UsbCaptureWriter::UsbCaptureWriter(std::unique_ptr<Output> out) : output(std::move(out)) {}
UsbCaptureWriter::~UsbCaptureWriter() = default;

std::unique_ptr<UsbCaptureWriter> UsbCaptureWriter::Create(const std::string& path, uint32_t snapLength,
                                                           std::string* error) {
    auto output = std::make_unique<Output>();
    output->path = path;
    output->snapLength = snapLength;
    output->pcap.reset(pcap_open_dead(kUsbCaptureLinkType, static_cast<int>(snapLength)));
    if (output->pcap) output->dumper = pcap_dump_open(output->pcap.get(), path.c_str());
    if (!output->dumper) {
        Fail(error, output->pcap ? pcap_geterr(output->pcap.get()) : path + ": out of memory");
        return nullptr;
    }
    return std::unique_ptr<UsbCaptureWriter>(new UsbCaptureWriter(std::move(output)));
}

void UsbCaptureWriter::Append(const UsbRecord& record) {
    if (!output->dumper) return;
    const UsbmonHeader header = MakeHeader(record);
    std::vector<uint8_t>& scratch = output->scratch;
    scratch.resize(sizeof(header));
    memcpy(scratch.data(), &header, sizeof(header));
    scratch.insert(scratch.end(), record.payload.begin(), record.payload.end());

    pcap_pkthdr packet{};
    packet.ts.tv_sec = static_cast<time_t>(record.timestampUs / 1000000);
    packet.ts.tv_usec = static_cast<suseconds_t>(record.timestampUs % 1000000);
    packet.caplen = static_cast<bpf_u_int32>(std::min<size_t>(scratch.size(), output->snapLength));
    packet.len = kUsbmonHeaderSize + record.FullPayloadSize();
    pcap_dump(reinterpret_cast<u_char*>(output->dumper), &packet, scratch.data());
    if (output->failure == 0 && ferror(pcap_dump_file(output->dumper))) output->failure = errno;
}

bool UsbCaptureWriter::Close(std::string* error) {
    if (!output->dumper) return Fail(error, output->path + ": already closed");
    if (pcap_dump_flush(output->dumper) != 0 && output->failure == 0) output->failure = errno;
    pcap_dump_close(output->dumper);
    output->dumper = nullptr;
    if (output->failure != 0) return Fail(error, output->path + ": " + strerror(output->failure));
    return true;
}
