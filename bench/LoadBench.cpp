// Loading the plug-in, initialising it and taking it to ready, and the way back: what a session pays once.
#include <benchmark/benchmark.h>

#include <string>

#include "tests/support/BareService.h"

namespace {

void BM_LoadInitUnload(benchmark::State& state) {
    for (auto _ : state) {
        const std::string failure = BareService::Start(BUILD_FOLDER "/lib/vchan_plugins/libusbRedirectionClient.so");
        if (!failure.empty()) {
            state.SkipWithError(failure.c_str());
            return;
        }
        BareService::Stop();
    }
}

}  // namespace

BENCHMARK(BM_LoadInitUnload)->UseRealTime();
BENCHMARK_MAIN();
