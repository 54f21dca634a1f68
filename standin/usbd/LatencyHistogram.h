// A histogram of times that costs two additions to feed: eight buckets to each power of two, from 1 ns on.
#pragma once

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <cstdint>

#include "standin/usbd/UsbdReplay.h"

namespace usbd {

// Relaxed throughout: each bucket is a number of its own, and a reader takes what it finds.
class LatencyHistogram {
public:
    void Add(uint64_t ns) {
        buckets[BucketOf(ns)].fetch_add(1, std::memory_order_relaxed);
        uint64_t max = maxNs.load(std::memory_order_relaxed);
        while (ns > max && !maxNs.compare_exchange_weak(max, ns, std::memory_order_relaxed)) {
        }
    }

    UsbReplayLatency Read() const {
        UsbReplayLatency latency;
        for (size_t i = 0; i < kBuckets; ++i) {
            const uint64_t count = buckets[i].load(std::memory_order_relaxed);
            if (count > 0) latency.buckets[UpperBound(i)] = count;
            latency.samples += count;
        }
        latency.maxNs = maxNs.load(std::memory_order_relaxed);
        SetPercentiles(&latency);
        return latency;
    }

    // Adds what another histogram read.
    static void Merge(const UsbReplayLatency& more, UsbReplayLatency* sum) {
        for (const auto& [bound, count] : more.buckets) sum->buckets[bound] += count;
        sum->samples += more.samples;
        sum->maxNs = std::max(sum->maxNs, more.maxNs);
        SetPercentiles(sum);
    }

private:
    static constexpr size_t kBuckets = 496;

    // Values below 16 have a bucket each; above, the leading four bits choose it.
    static size_t BucketOf(uint64_t ns) {
        const int shift = std::max(0, static_cast<int>(std::bit_width(ns)) - 4);
        return static_cast<size_t>(shift) * 8 + static_cast<size_t>(ns >> shift);
    }

    static uint64_t UpperBound(size_t bucket) {
        if (bucket < 16) return bucket;
        const size_t shift = bucket / 8 - 1;
        return (static_cast<uint64_t>(bucket - shift * 8 + 1) << shift) - 1;
    }

    static void SetPercentiles(UsbReplayLatency* latency) {
        latency->p50Ns = Percentile(*latency, (latency->samples + 1) / 2);
        latency->p99Ns = Percentile(*latency, latency->samples - latency->samples / 100);
    }

    static uint64_t Percentile(const UsbReplayLatency& latency, uint64_t rank) {
        uint64_t seen = 0;
        for (const auto& [bound, count] : latency.buckets) {
            seen += count;
            if (seen >= rank) return std::min(latency.maxNs, bound);
        }
        return latency.maxNs;
    }

    std::array<std::atomic<uint64_t>, kBuckets> buckets{};
    std::atomic<uint64_t> maxNs{0};
};

}  // namespace usbd
