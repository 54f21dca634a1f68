// One fast post through the loaded plug-in into a service whose tables do next to nothing, beside the same table calls
// made by hand, and beside an encoder of the field that puts a bulk packet of the same size into memory.
#include <benchmark/benchmark.h>
#include <usbredirparser.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "tests/support/AllocationCount.h"
#include "tests/support/BareService.h"

namespace {

void CountAllocations(benchmark::State& state, const AllocationCount& allocations) {
    state.counters["allocations"] =
        benchmark::Counter(static_cast<double>(allocations.Count()) / static_cast<double>(state.iterations()));
}

void BM_FastPost(benchmark::State& state) {
    const std::vector<unsigned char> payload(static_cast<size_t>(state.range(0)), 0x5A);
    const AllocationCount allocations;
    for (auto _ : state) benchmark::DoNotOptimize(BareService::PostFast(payload.size(), payload.data()));
    CountAllocations(state, allocations);
}

void BM_CallsByHand(benchmark::State& state) {
    const std::vector<unsigned char> payload(static_cast<size_t>(state.range(0)), 0x5A);
    for (auto _ : state) benchmark::DoNotOptimize(BareService::PostFastByHand(payload.size(), payload.data()));
}

// The host side of a redirection that encodes into memory; the greeting of a guest side opens long packets to it.
class Encoder {
public:
    Encoder() {
        Encoder* const self = this;
        usbredirparser* guest = Create(&greeting);
        Init(guest, 0);
        while (usbredirparser_has_data_to_write(guest)) usbredirparser_do_write(guest);
        usbredirparser_destroy(guest);
        host = Create(self);
        host->read_func = Read;
        host->write_func = Discard;
        host->hello_func = [](void*, usb_redir_hello_header*) {};
        Init(host, usbredirparser_fl_usb_host);
        while (usbredirparser_has_data_to_write(host)) usbredirparser_do_write(host);
        usbredirparser_do_read(host);
    }
    ~Encoder() { usbredirparser_destroy(host); }

    void Encode(std::vector<unsigned char>& data) {
        usb_redir_bulk_packet_header header{};
        header.endpoint = 0x81;
        header.length = static_cast<uint16_t>(data.size());
        header.length_high = static_cast<uint16_t>(data.size() >> 16);
        usbredirparser_send_bulk_packet(host, 1, &header, data.data(), static_cast<int>(data.size()));
        usbredirparser_do_write(host);
    }

private:
    static usbredirparser* Create(void* priv) {
        usbredirparser* parser = usbredirparser_create();
        parser->priv = priv;
        parser->log_func = [](void*, int, const char* text) { std::fprintf(stderr, "%s\n", text); };
        parser->read_func = [](void*, uint8_t*, int) { return 0; };
        parser->write_func = Keep;
        return parser;
    }
    static void Init(usbredirparser* parser, int flags) {
        uint32_t caps[USB_REDIR_CAPS_SIZE]{};
        usbredirparser_caps_set_cap(caps, usb_redir_cap_32bits_bulk_length);
        usbredirparser_caps_set_cap(caps, usb_redir_cap_64bits_ids);
        usbredirparser_init(parser, "bench", caps, USB_REDIR_CAPS_SIZE, flags);
    }
    static int Keep(void* priv, uint8_t* data, int count) {
        auto* bytes = static_cast<std::vector<uint8_t>*>(priv);
        bytes->insert(bytes->end(), data, data + count);
        return count;
    }
    static int Discard(void*, uint8_t*, int count) { return count; }
    static int Read(void* priv, uint8_t* data, int count) {
        auto& bytes = static_cast<Encoder*>(priv)->greeting;
        const size_t size = std::min(bytes.size(), static_cast<size_t>(count));
        std::memcpy(data, bytes.data(), size);
        bytes.erase(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(size));
        return static_cast<int>(size);
    }

    std::vector<uint8_t> greeting;
    usbredirparser* host = nullptr;
};

void BM_BulkPacketEncoder(benchmark::State& state) {
    Encoder encoder;
    std::vector<unsigned char> payload(static_cast<size_t>(state.range(0)), 0x5A);
    const AllocationCount allocations;
    for (auto _ : state) encoder.Encode(payload);
    CountAllocations(state, allocations);
}

}  // namespace

BENCHMARK(BM_FastPost)->Arg(64)->Arg(4096)->Arg(65536);
BENCHMARK(BM_CallsByHand)->Arg(64)->Arg(4096)->Arg(65536);
BENCHMARK(BM_BulkPacketEncoder)->Arg(64)->Arg(4096)->Arg(65536);

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    const std::string failure = BareService::Start(BUILD_FOLDER "/lib/vchan_plugins/libusbRedirectionClient.so");
    if (!failure.empty()) {
        std::fprintf(stderr, "FastPostBench: %s\n", failure.c_str());
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    BareService::Stop();
    return 0;
}
