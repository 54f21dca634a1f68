// The primitives of the runtime, each beside a peer of the field or the bare limit in the same run. A name is
// Family/Peer; the figures of a family may be compared.
#include <benchmark/benchmark.h>
#include <sched.h>
#include <winpr/synch.h>

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

// The runtime has its own.
#undef TRUE
#undef FALSE

#include "runtime/KxEvent.h"
#include "runtime/KxMutex.h"
#include "runtime/RCObject.h"
#include "runtime/SpinPause.h"

namespace {

constexpr size_t kListSize = 8;

// Each kind of event has Set, Reset, Wait without limit and IsSet, and a list of events with WaitAny. All are in
// manual-reset mode, since WinPR's have no other on this system.
struct KxKind {
    class Event {
    public:
        void Set() { event.Set(); }
        void Reset() { event.Reset(); }
        void Wait() { event.Wait(kInfinite); }
        bool IsSet() { return event.Wait(0) == kWaitSignaled; }

        KxEvent event{true, false};
    };
    class List {
    public:
        List() {
            for (Event& event : events) pointers.push_back(&event.event);
        }
        size_t WaitAny() { return static_cast<size_t>(KxEvent::WaitMultiple(pointers, false, kInfinite, false)); }

        std::array<Event, kListSize> events;

    private:
        std::vector<KxEvent*> pointers;
    };
};

struct WinPRKind {
    class Event {
    public:
        Event() = default;
        Event(const Event&) = delete;
        Event& operator=(const Event&) = delete;
        ~Event() { CloseHandle(handle); }

        void Set() { SetEvent(handle); }
        void Reset() { ResetEvent(handle); }
        void Wait() { WaitForSingleObject(handle, INFINITE); }
        bool IsSet() { return WaitForSingleObject(handle, 0) == WAIT_OBJECT_0; }

        const HANDLE handle = CreateEventA(nullptr, true, false, nullptr);
    };
    class List {
    public:
        List() {
            for (size_t i = 0; i < kListSize; ++i) handles[i] = events[i].handle;
        }
        size_t WaitAny() { return WaitForMultipleObjects(kListSize, handles.data(), false, INFINITE) - WAIT_OBJECT_0; }

        std::array<Event, kListSize> events;

    private:
        std::array<HANDLE, kListSize> handles;
    };
};

// The bare limit: a flag under a mutex with a condition, and a list whose flags share one of each.
struct CondVarKind {
    struct Condition {
        std::mutex mutex;
        std::condition_variable changed;
    };
    class Event {
    public:
        Event() : condition(own) {}
        explicit Event(Condition& common) : condition(common) {}

        void Set() {
            {
                const std::lock_guard guard(condition.mutex);
                signaled = true;
            }
            condition.changed.notify_all();
        }
        void Reset() {
            const std::lock_guard guard(condition.mutex);
            signaled = false;
        }
        void Wait() {
            std::unique_lock guard(condition.mutex);
            condition.changed.wait(guard, [this] { return signaled; });
        }
        bool IsSet() {
            const std::lock_guard guard(condition.mutex);
            return signaled;
        }

    private:
        friend struct CondVarKind;

        Condition own;
        Condition& condition;
        bool signaled = false;
    };
    class List {
    public:
        size_t WaitAny() {
            std::unique_lock guard(condition.mutex);
            for (;;) {
                for (size_t i = 0; i < kListSize; ++i) {
                    if (events[i].signaled) return i;
                }
                condition.changed.wait(guard);
            }
        }

    private:
        Condition condition;

    public:
        std::array<Event, kListSize> events{Event(condition), Event(condition), Event(condition), Event(condition),
                                            Event(condition), Event(condition), Event(condition), Event(condition)};
    };
};

// Binds the calling thread to one processor of those that it may use, and lets it go back to all of them. Two threads
// that wake each other are measured on two processors and on one: left to the scheduler, they change from one to the
// other, and figures can't be compared.
class Processor {
public:
    enum Choice { kFirst, kLast };

    explicit Processor(Choice choice) {
        sched_getaffinity(0, sizeof all, &all);
        int found = -1;
        for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
            if (CPU_ISSET(cpu, &all) && (found < 0 || choice == kLast)) found = cpu;
        }
        cpu_set_t one;
        CPU_ZERO(&one);
        CPU_SET(found, &one);
        sched_setaffinity(0, sizeof one, &one);
    }
    Processor(const Processor&) = delete;
    Processor& operator=(const Processor&) = delete;
    ~Processor() { sched_setaffinity(0, sizeof all, &all); }

private:
    cpu_set_t all;
};

// Runs turn on a second thread again and again, and binds the calling thread and the second one each to a processor.
// Stop ends it: lastTurn starts the turn in which it waits.
template <typename Turn>
class Partner {
public:
    Partner(Processor::Choice choice, Turn turn)
        : thread([this, choice, turn] {
              const Processor processor(choice);
              while (!stopped.load(std::memory_order_relaxed)) turn();
          }) {}
    template <typename LastTurn>
    void Stop(LastTurn lastTurn) {
        stopped.store(true, std::memory_order_relaxed);
        lastTurn();
        thread.join();
    }

private:
    std::atomic<bool> stopped{false};
    std::thread thread;
    const Processor mine{Processor::kFirst};  // after the thread, which would inherit it
};

template <typename Kind>
void EventSetWait0(benchmark::State& state) {
    typename Kind::Event event;
    for (auto _ : state) {
        event.Set();
        if (!event.IsSet()) state.SkipWithError("a signal is lost");
    }
}

// One turn is a signal there and one back, each reset by the one who waited.
template <typename Kind, Processor::Choice partnersProcessor>
void EventPingPong(benchmark::State& state) {
    typename Kind::Event there;
    typename Kind::Event back;
    Partner partner(partnersProcessor, [&] {
        there.Wait();
        there.Reset();
        back.Set();
    });
    for (auto _ : state) {
        there.Set();
        back.Wait();
        back.Reset();
    }
    partner.Stop([&] { there.Set(); });
}

// A signal is there, at changing positions of the list.
template <typename Kind>
void EventWaitAnyOf8Ready(benchmark::State& state) {
    typename Kind::List list;
    size_t next = 0;
    for (auto _ : state) {
        list.events[next].Set();
        if (list.WaitAny() != next) state.SkipWithError("the wrong signal");
        list.events[next].Reset();
        next = (next + 1) % kListSize;
    }
}

// One turn is a signal at a changing position of a list, and one back.
template <typename Kind, Processor::Choice partnersProcessor>
void EventWaitAnyPingPong(benchmark::State& state) {
    typename Kind::List list;
    typename Kind::Event back;
    Partner partner(partnersProcessor, [&] {
        list.events[list.WaitAny()].Reset();
        back.Set();
    });
    size_t next = 0;
    for (auto _ : state) {
        list.events[next].Set();
        back.Wait();
        back.Reset();
        next = (next + 1) % kListSize;
    }
    partner.Stop([&] { list.events[0].Set(); });
}

struct KxLock {
    void Lock() NO_THREAD_SAFETY_ANALYSIS { mutex.Acquire(); }
    void Unlock() NO_THREAD_SAFETY_ANALYSIS { mutex.Release(); }
    KxMutex mutex;
};

struct StdLock {
    void Lock() { mutex.lock(); }
    void Unlock() { mutex.unlock(); }
    std::recursive_timed_mutex mutex;
};

template <typename Lock>
void MutexUncontended(benchmark::State& state) {
    Lock lock;
    for (auto _ : state) {
        lock.Lock();
        lock.Unlock();
    }
}

template <typename Lock>
void MutexNested(benchmark::State& state) {
    Lock lock;
    lock.Lock();
    for (auto _ : state) {
        lock.Lock();
        lock.Unlock();
    }
    lock.Unlock();
}

// A second thread that sleeps: with only one thread the peers would count without atomic operations.
class ParkedThread {
public:
    ~ParkedThread() {
        wake.Set();
        thread.join();
    }

private:
    CondVarKind::Event wake;
    std::thread thread{[this] { wake.Wait(); }};
};

struct Shared : RCObject {
    explicit Shared(RefCountMode mode = RefCountOn) : RCObject(mode) {}
};

template <typename Pointer>
void CopyAndDrop(benchmark::State& state, const Pointer& original) {
    const ParkedThread parked;
    for (auto _ : state) {
        const Pointer copy(original);
        benchmark::DoNotOptimize(copy);
    }
}

void PointerCopyDropRCPtr(benchmark::State& state) {
    CopyAndDrop(state, RCPtr<Shared>(new Shared));
}

void PointerCopyDropSharedPtr(benchmark::State& state) {
    CopyAndDrop(state, std::make_shared<Shared>());
}

void UncountedAddRefReleaseRefCountOff(benchmark::State& state) {
    const ParkedThread parked;
    Shared object(RefCountOff);
    Shared* pointer = &object;
    for (auto _ : state) {
        benchmark::DoNotOptimize(pointer);
        benchmark::DoNotOptimize(pointer->AddRef());
        benchmark::DoNotOptimize(pointer->Release());
    }
}

void UncountedAddRefReleaseBranch(benchmark::State& state) {
    struct Word {
        uint32_t count = 0;
        bool counted = false;
        uint32_t Step(uint32_t by) {
            if (!counted) return 0;
            return count += by;
        }
    };
    Word word;
    Word* pointer = &word;
    for (auto _ : state) {
        benchmark::DoNotOptimize(pointer);
        benchmark::DoNotOptimize(pointer->Step(1));
        benchmark::DoNotOptimize(pointer->Step(static_cast<uint32_t>(-1)));
    }
}

// What two threads can't beat that never sleep: a word goes there and back. Needs two processors.
void CacheLineRoundTrip(benchmark::State& state) {
    alignas(64) std::atomic<uint32_t> there{0};
    alignas(64) std::atomic<uint32_t> back{0};
    Partner partner(Processor::kLast, [&] {
        const uint32_t turn = there.load(std::memory_order_acquire);
        if (turn == back.load(std::memory_order_relaxed)) {
            SpinPause();
        } else {
            back.store(turn, std::memory_order_release);
        }
    });
    uint32_t turn = 0;
    for (auto _ : state) {
        there.store(++turn, std::memory_order_release);
        while (back.load(std::memory_order_acquire) != turn) SpinPause();
    }
    partner.Stop([] {});
}

// BENCHMARK_PEERS(family): the family's figure for each kind of event.
#define BENCHMARK_PEERS(family)                           \
    BENCHMARK(family<KxKind>)->Name(#family "/KxEvent");  \
    BENCHMARK(family<WinPRKind>)->Name(#family "/WinPR"); \
    BENCHMARK(family<CondVarKind>)->Name(#family "/CondVar")

// The same for a family of two threads, the second one on that processor.
#define BENCHMARK_PEERS_ON(family, name, processor)                                \
    BENCHMARK((family<KxKind, processor>))->Name(name "/KxEvent")->UseRealTime();  \
    BENCHMARK((family<WinPRKind, processor>))->Name(name "/WinPR")->UseRealTime(); \
    BENCHMARK((family<CondVarKind, processor>))->Name(name "/CondVar")->UseRealTime()

BENCHMARK_PEERS(EventSetWait0);
BENCHMARK_PEERS(EventWaitAnyOf8Ready);
BENCHMARK_PEERS_ON(EventPingPong, "EventPingPong", Processor::kLast);
BENCHMARK_PEERS_ON(EventPingPong, "EventPingPongOneCpu", Processor::kFirst);
BENCHMARK_PEERS_ON(EventWaitAnyPingPong, "EventWaitAnyOf8", Processor::kLast);
BENCHMARK_PEERS_ON(EventWaitAnyPingPong, "EventWaitAnyOf8OneCpu", Processor::kFirst);
BENCHMARK(CacheLineRoundTrip)->UseRealTime();
BENCHMARK(MutexUncontended<KxLock>)->Name("MutexUncontended/KxMutex");
BENCHMARK(MutexUncontended<StdLock>)->Name("MutexUncontended/RecursiveTimedMutex");
BENCHMARK(MutexNested<KxLock>)->Name("MutexNested/KxMutex");
BENCHMARK(MutexNested<StdLock>)->Name("MutexNested/RecursiveTimedMutex");
BENCHMARK(PointerCopyDropRCPtr)->Name("PointerCopyDrop/RCPtr");
BENCHMARK(PointerCopyDropSharedPtr)->Name("PointerCopyDrop/SharedPtr");
BENCHMARK(UncountedAddRefReleaseRefCountOff)->Name("UncountedAddRefRelease/RefCountOff");
BENCHMARK(UncountedAddRefReleaseBranch)->Name("UncountedAddRefRelease/Branch");

}  // namespace

BENCHMARK_MAIN();
