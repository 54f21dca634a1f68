// The poll thread: the cost of a turn by the number of items, and beside libuv the lateness of a time-out and the time
// from a signal on another thread to the run.
#include <benchmark/benchmark.h>
#include <uv.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "runtime/KxPollThread.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kTimeoutMS = 5;
constexpr int kSamples = 21;  // in one iteration, of which the median counts

double SecondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

double Median(std::vector<double>& values) {
    std::nth_element(values.begin(), values.begin() + static_cast<long>(values.size() / 2), values.end());
    return values[values.size() / 2];
}

// One item that is always due, among others that wait for an event each: all turns but the first run it.
void PollTurn(benchmark::State& state) {
    const RCPtr<KxPollThread> thread(new KxPollThread("bench"));
    const auto count = static_cast<int>(state.range(0));
    for (int i = 1; i < count; ++i) {
        thread->AddTask("idle", RCPtr<KxEvent>(new KxEvent(false, false)), kNoTimeout, [](bool) { return true; });
    }
    std::atomic<int64_t> turns{0};
    thread->AddTask("due", static_cast<KxEvent*>(nullptr), 0, [&](bool) {
        turns.fetch_add(1, std::memory_order_relaxed);
        return true;
    });
    thread->StartScheduler();
    constexpr int64_t kTurns = 2000;
    for (auto _ : state) {
        const int64_t first = turns.load(std::memory_order_relaxed);
        const auto start = Clock::now();
        int64_t now = first;
        while (now - first < kTurns) {
            std::this_thread::sleep_for(std::chrono::microseconds(200));
            now = turns.load(std::memory_order_relaxed);
        }
        state.SetIterationTime(SecondsSince(start) / static_cast<double>(now - first));
    }
    thread->StopScheduler();
    thread->RemoveAllItems(true);
}

void PollLatenessOurs(benchmark::State& state) {
    const RCPtr<KxPollThread> thread(new KxPollThread("bench"));
    thread->StartScheduler();
    for (auto _ : state) {
        std::vector<double> late;
        KxEvent done(false, false);
        auto start = Clock::now();
        const RCPtr<KxPollTask> task(new KxPollTask("timer", [&](bool) {
            late.push_back(SecondsSince(start) - kTimeoutMS / 1000.0);
            if (late.size() == kSamples) {
                done.Set();
                return false;
            }
            start = Clock::now();
            return true;
        }));
        start = Clock::now();
        thread->AddItem(task.Get(), kTimeoutMS);
        done.Wait(kInfinite);
        thread->RemoveItem(task.Get(), true);
        state.SetIterationTime(Median(late));
    }
    thread->StopScheduler();
}

void PollLatenessUv(benchmark::State& state) {
    struct Job {
        std::vector<double> late;
        Clock::time_point start;
    };
    for (auto _ : state) {
        uv_loop_t loop;
        uv_loop_init(&loop);
        Job job;
        uv_timer_t timer;
        uv_timer_init(&loop, &timer);
        timer.data = &job;
        const auto fire = [](uv_timer_t* handle) {
            Job& state = *static_cast<Job*>(handle->data);
            state.late.push_back(SecondsSince(state.start) - kTimeoutMS / 1000.0);
            if (state.late.size() == kSamples) {
                uv_close(reinterpret_cast<uv_handle_t*>(handle), nullptr);
                return;
            }
            state.start = Clock::now();
            uv_update_time(handle->loop);
            uv_timer_start(handle, handle->timer_cb, kTimeoutMS, 0);
        };
        job.start = Clock::now();
        uv_update_time(&loop);
        uv_timer_start(&timer, fire, kTimeoutMS, 0);
        uv_run(&loop, UV_RUN_DEFAULT);
        uv_loop_close(&loop);
        state.SetIterationTime(Median(job.late));
    }
}

// The other thread gives the loop time to fall asleep ahead of each signal.
template <typename Signal>
double MeasureWakeUps(std::atomic<int>& seen, Clock::time_point& start, std::vector<double>& latencies, Signal signal) {
    for (int i = 0; i < kSamples; ++i) {
        std::this_thread::sleep_for(std::chrono::microseconds(300));
        start = Clock::now();
        signal();
        while (seen.load(std::memory_order_acquire) == i) std::this_thread::yield();
    }
    return Median(latencies);
}

void PollWakeUpOurs(benchmark::State& state) {
    const RCPtr<KxPollThread> thread(new KxPollThread("bench"));
    thread->StartScheduler();
    for (auto _ : state) {
        std::atomic<int> seen{0};
        Clock::time_point start;
        std::vector<double> latencies;
        const RCPtr<KxEvent> event(new KxEvent(false, false));
        const RCPtr<KxPollTask> task(new KxPollTask("wake", [&](bool) {
            latencies.push_back(SecondsSince(start));
            seen.fetch_add(1, std::memory_order_release);
            return true;
        }));
        thread->AddItem(task.Get(), event, kNoTimeout);
        state.SetIterationTime(MeasureWakeUps(seen, start, latencies, [&] { event->Set(); }));
        thread->RemoveItem(task.Get(), true);
    }
    thread->StopScheduler();
}

void PollWakeUpUv(benchmark::State& state) {
    struct Job {
        std::atomic<int> seen{0};
        Clock::time_point start;
        std::vector<double> latencies;
    };
    for (auto _ : state) {
        uv_loop_t loop;
        uv_loop_init(&loop);
        Job job;
        uv_async_t async;
        uv_async_init(&loop, &async, [](uv_async_t* handle) {
            Job& state = *static_cast<Job*>(handle->data);
            state.latencies.push_back(SecondsSince(state.start));
            if (state.seen.fetch_add(1, std::memory_order_release) + 1 == kSamples) {
                uv_close(reinterpret_cast<uv_handle_t*>(handle), nullptr);
            }
        });
        async.data = &job;
        std::thread runner([&] { uv_run(&loop, UV_RUN_DEFAULT); });
        const double median = MeasureWakeUps(job.seen, job.start, job.latencies, [&] { uv_async_send(&async); });
        runner.join();
        uv_loop_close(&loop);
        state.SetIterationTime(median);
    }
}

}  // namespace

BENCHMARK(PollTurn)->Arg(4)->Arg(16)->Arg(64)->UseManualTime()->Iterations(5);
BENCHMARK(PollLatenessOurs)->Name("PollLateness/KxPollThread")->UseManualTime()->Iterations(1);
BENCHMARK(PollLatenessUv)->Name("PollLateness/libuv")->UseManualTime()->Iterations(1);
BENCHMARK(PollWakeUpOurs)->Name("PollWakeUp/KxPollThread")->UseManualTime()->Iterations(3);
BENCHMARK(PollWakeUpUv)->Name("PollWakeUp/libuv")->UseManualTime()->Iterations(3);

BENCHMARK_MAIN();
