// One log line: disabled, and on its way to a buffered file, at the caller and end to end, beside other loggers.
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "bench/LogPeers.h"
#include "logging/Log.h"
#include "logging/LogWriter.h"
#include "logging/LoggerManager.h"
#include "tests/support/AllocationCount.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kLines = 200000;
constexpr int kWarmLines = 40000;

double Seconds(Clock::time_point from) {
    return std::chrono::duration<double>(Clock::now() - from).count();
}

// A folder that goes with the object.
struct Folder {
    std::string path = [] {
        char name[] = "/tmp/logbenchXXXXXX";
        return std::string(mkdtemp(name));
    }();
    ~Folder() { std::filesystem::remove_all(path); }
};

class OurLogger : public LogPeer {
public:
    explicit OurLogger(const std::string& folder) {
        logger = LoggerManager::CreateLogger("bench", "Bench", true);
        const RCPtr<LogWriter> writer = logger->AddWriter(kFileWriter);
        writer->SetProperty("folderPath", folder);
        writer->SetProperty("maxFileSizeMB", "0");
        logger->Start();
    }
    void Line(int number) override { LOG(Info, BENCH_LINE_PRINTF, BENCH_LINE_ARGS(number)); }
    void Finish() override {
        logger = nullptr;
        LoggerManager::Shutdown();
    }

private:
    RCPtr<Logger> logger;
};

double RunThreads(LogPeer& peer, int threads, int lines) {
    const auto start = Clock::now();
    std::vector<std::thread> running;
    for (int i = 0; i < threads; ++i) {
        running.emplace_back([&] {
            for (int n = 0; n < lines / threads; ++n) peer.Line(n);
        });
    }
    for (std::thread& each : running) each.join();
    return Seconds(start);
}

// The time is that of the callers for one line; end_ns is that of all lines up to the final flush, for one line.
void EnabledLine(benchmark::State& state, const std::function<std::unique_ptr<LogPeer>(const std::string&)>& make) {
    const int threads = static_cast<int>(state.range(0));
    double endSeconds = 0;
    for (auto _ : state) {
        const Folder folder;
        const std::unique_ptr<LogPeer> peer = make(folder.path);
        RunThreads(*peer, threads, kWarmLines);
        const auto start = Clock::now();
        const double callers = RunThreads(*peer, threads, kLines);
        peer->Finish();
        endSeconds += Seconds(start);
        state.SetIterationTime(callers / kLines);
    }
    state.counters["end_ns"] = endSeconds / static_cast<double>(state.iterations()) / kLines * 1e9;
}

// Heap allocations of a warm pool and queue, for one line.
void EnabledLineAllocations(benchmark::State& state) {
    const Folder folder;
    OurLogger peer(folder.path);
    RunThreads(peer, 1, kWarmLines);
    const AllocationCount allocations;
    for (auto _ : state) peer.Line(1);
    state.counters["allocations"] =
        benchmark::Counter(static_cast<double>(allocations.Count()) / static_cast<double>(state.iterations()));
    peer.Finish();
}

void DisabledLine(benchmark::State& state) {
    int number = 0;
    for (auto _ : state) {
        LOG(Debug, "Transfer %d\n", ++number);
        benchmark::ClobberMemory();
    }
    if (number != 0) state.SkipWithError("an argument of a disabled line was evaluated");
}

void DisabledLineEmptyLoop(benchmark::State& state) {
    for (auto _ : state) benchmark::ClobberMemory();
}

void Register(const char* name, std::function<std::unique_ptr<LogPeer>(const std::string&)> make) {
    benchmark::RegisterBenchmark((std::string("EnabledLine/") + name).c_str(), EnabledLine, make)
        ->Arg(1)
        ->Arg(4)
        ->Iterations(1)
        ->UseManualTime();
}

}  // namespace

BENCHMARK(DisabledLine)->Name("DisabledLine/LOG");
BENCHMARK(DisabledLineEmptyLoop)->Name("DisabledLine/EmptyLoop");
BENCHMARK(EnabledLineAllocations)->Name("EnabledLineAllocations");

int main(int argc, char** argv) {
    Register("Ours", [](const std::string& folder) { return std::make_unique<OurLogger>(folder); });
    Register("SpdlogSync", LogPeer::SpdlogSync);
    Register("SpdlogAsync", LogPeer::SpdlogAsync);
    Register("Glog", LogPeer::Glog);
    Register("Bare", LogPeer::Bare);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
