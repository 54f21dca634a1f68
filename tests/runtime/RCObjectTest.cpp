#include "runtime/RCObject.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

#include "runtime/Atomic.h"
#include "runtime/ThreadNumber.h"

namespace {

// Counts itself in alive while it lives, and runs a hook on its last release.
class Tracked : public RCObject {
public:
    explicit Tracked(std::atomic<int>& count, RefCountMode mode = RefCountOn) : RCObject(mode), alive(count) {
        ++alive;
    }
    Tracked(const Tracked& other) : RCObject(other), alive(other.alive) { ++alive; }
    ~Tracked() override {
        intact = false;
        --alive;
    }

    std::function<bool(Tracked*)> onLastRelease;
    bool intact = true;

protected:
    bool OnLastRelease() override { return onLastRelease && onLastRelease(this); }

private:
    std::atomic<int>& alive;
};

class Special : public Tracked {
public:
    using Tracked::Tracked;
};

// Its link stands for somebody else, or isn't there.
class Delegating : public RCObject {
public:
    explicit Delegating(RCObject* object) : other(object) {}

private:
    WkReference* CreateWkReference() override { return other ? new WkReference(other) : nullptr; }

    RCObject* const other;
};

// None of the objects may outlive its test.
class RCObjectTest : public testing::Test {
protected:
    ~RCObjectTest() override { EXPECT_EQ(alive, 0); }

    std::atomic<int> alive{0};
};

using RCPtrTest = RCObjectTest;
using WkPtrTest = RCObjectTest;
using ReferenceLockTest = RCObjectTest;

uint32_t CountOf(RCObject* object) {
    object->AddRef();
    return object->Release();
}

// Apart from the analysis of locks, which doesn't know recursive ones.
uint32_t AddRefUnderInnerLock(RCObject& object) NO_THREAD_SAFETY_ANALYSIS {
    RCObject::LockReferences();
    const uint32_t count = object.AddRef();
    RCObject::UnlockReferences();
    return count;
}

TEST_F(RCObjectTest, ReturnsTheCountOfEachStepAndDiesWithTheLastReference) {
    auto* object = new Tracked(alive);
    EXPECT_EQ(object->Release(), 0u) << "a release without a reference does nothing";
    EXPECT_EQ(alive, 1);
    EXPECT_EQ(object->AddRef(), 1u);
    EXPECT_EQ(object->AddRef(), 2u);
    EXPECT_EQ(object->Release(), 1u);
    EXPECT_EQ(object->Release(), 0u);
}

TEST_F(RCObjectTest, UncountedObjectsStayWithTheirOwner) {
    auto object = std::make_unique<Tracked>(alive, RefCountOff);
    EXPECT_EQ(object->AddRef(), 0u);
    EXPECT_EQ(object->Release(), 0u);
    { const RCPtr<Tracked> held(object.get()); }
    WkPtr<Tracked> weak(object.get());
    EXPECT_EQ(weak.Lock(), object.get());
    EXPECT_EQ(alive, 1);
    object.reset();
    EXPECT_FALSE(weak.Lock()) << "the link is cut by the destructor";
    {
        Tracked counted(alive);  // a member, say
        weak = WkPtr<Tracked>(&counted);
    }
    EXPECT_FALSE(weak.Lock());
}

TEST_F(RCObjectTest, ACopyStartsWithoutReferencesAndLink) {
    const RCPtr<Tracked> original(new Tracked(alive));
    const WkPtr<Tracked> weak(original.Get());
    Tracked copy(*original);
    EXPECT_EQ(copy.AddRef(), 1u);
    EXPECT_NE(copy.GetWkReference(), weak.Get());
    static_cast<RCObject&>(*original) = copy;
    EXPECT_EQ(CountOf(original.Get()), 1u) << "assignment leaves the count alone";
    EXPECT_EQ(weak.Lock(), original);
}

TEST_F(RCObjectTest, IsDestroyedOnTheThreadThatDroppedItLastWithoutTheLock) {
    std::thread::id destroyer, dropper;
    RCPtr<Tracked> object(new Tracked(alive));
    object->onLastRelease = [&](Tracked*) {
        destroyer = std::this_thread::get_id();
        std::thread([&] { RCPtr<Tracked>(new Tracked(alive)); }).join();  // would hang if the lock were held
        return false;
    };
    std::thread([&, last = std::move(object)]() mutable {
        dropper = std::this_thread::get_id();
        last = nullptr;
    }).join();
    EXPECT_EQ(destroyer, dropper);
}

TEST_F(RCObjectTest, GivesNoWeakLinkWhileItDies) {
    RCPtr<Tracked> object(new Tracked(alive));
    const WkPtr<Tracked> old(object.Get());
    bool called = false;
    object->onLastRelease = [&](Tracked* self) {
        called = true;
        EXPECT_EQ(self->GetWkReference(), nullptr);
        EXPECT_FALSE(WkPtr<Tracked>(self).Lock());
        EXPECT_FALSE(old.Lock());
        { const RCPtr<Tracked> passing(self); }  // neither deletes it nor starts over
        return false;
    };
    object = nullptr;
    EXPECT_TRUE(called);
}

TEST_F(RCObjectTest, KeepsTheReferencesTakenWhileItTookItselfBack) {
    for (const uint32_t taken : {0u, 1u, 3u}) {
        auto* object = new Tracked(alive);
        std::vector<RCPtr<Tracked>> kept;
        object->onLastRelease = [&](Tracked* self) {
            kept.assign(taken, RCPtr<Tracked>(self));
            return true;
        };
        object->AddRef();
        const WkPtr<Tracked> old(object);
        EXPECT_EQ(object->Release(), taken);
        EXPECT_EQ(alive, 1);
        EXPECT_EQ(CountOf(object), taken);
        EXPECT_FALSE(old.Lock()) << "an old link stays cut";
        object->onLastRelease = nullptr;
        RCPtr<Tracked> again(object);
        EXPECT_EQ(WkPtr<Tracked>(object).Lock(), object);
        kept.clear();
        again = nullptr;
        EXPECT_EQ(alive, 0);
    }
}

TEST_F(RCPtrTest, HoldsExactlyWhatItPointsTo) {
    RCPtr<Tracked> first(new Tracked(alive));
    Tracked* const object = first.Get();
    RCPtr<Tracked> second(first);
    RCPtr<Tracked> third(std::move(second));
    EXPECT_EQ(CountOf(object), 2u);
    EXPECT_FALSE(second);
    second = third;
    EXPECT_EQ(CountOf(object), 3u);
    second = std::move(third);
    EXPECT_EQ(CountOf(object), 2u);
    EXPECT_EQ(third, nullptr);
    second = new Tracked(alive);
    EXPECT_EQ(CountOf(object), 1u);
    EXPECT_EQ(alive, 2);
    second = nullptr;
    EXPECT_EQ(alive, 1);

    RCPtr<Tracked>& same = first;
    first = same;
    first = object;
    first = std::move(same);
    EXPECT_EQ(first, object);
    EXPECT_EQ(CountOf(object), 1u) << "it survives an assignment of itself";
}

TEST_F(RCPtrTest, NarrowsByTheClassOfTheObject) {
    const RCPtr<Tracked> special(new Special(alive));
    const RCPtr<Tracked> plain(new Tracked(alive));
    const RCPtr<Special> narrowed(special);
    EXPECT_EQ(narrowed.Get(), special.Get());
    EXPECT_EQ(CountOf(special.Get()), 2u);
    EXPECT_FALSE(RCPtr<Special>(plain));
    const RCPtr<RCObject> widened(narrowed);
    EXPECT_EQ(CountOf(special.Get()), 3u);
}

TEST_F(RCPtrTest, ReleasesWhatItHeldWhenThreadsAssignAtOnce) {
    {
        RCPtr<Tracked> shared;
        std::vector<std::thread> threads;
        for (int t = 0; t < 3; ++t) {
            threads.emplace_back([&] {
                for (int i = 0; i < 2000; ++i) {
                    RCPtr<Tracked> fresh(new Tracked(alive));
                    shared = std::move(fresh);
                }
            });
        }
        for (std::thread& thread : threads) thread.join();
        EXPECT_EQ(alive, 1);
    }
}

TEST_F(WkPtrTest, FindsItsObjectUntilTheLastReferenceGoesAndThenNeverAgain) {
    EXPECT_FALSE(WkPtr<Tracked>().Lock() || WkPtr<Tracked>(nullptr).Lock());
    RCPtr<Tracked> object(new Tracked(alive));
    const WkPtr<Tracked> weak(object.Get());
    EXPECT_EQ(weak, WkPtr<Tracked>(object.Get())) << "an object has one link";
    RCPtr<Tracked> locked = weak.Lock();
    EXPECT_EQ(CountOf(object.Get()), 2u);
    object = nullptr;
    EXPECT_EQ(weak.Lock(), locked);
    locked = nullptr;
    EXPECT_EQ(alive, 0);
    EXPECT_FALSE(weak.Lock());
    EXPECT_EQ(CountOf(weak.Get()), 1u) << "the link outlives its object";
}

TEST_F(WkPtrTest, IsEmptyWhenTheLinkStandsForAnotherClassOrIsMissing) {
    const RCPtr<Tracked> target(new Tracked(alive));
    const RCPtr<Delegating> delegating(new Delegating(target.Get())), linkless(new Delegating(nullptr));
    EXPECT_EQ(WkPtr<RCObject>(delegating.Get()).Lock().Get(), target.Get());
    EXPECT_FALSE(WkPtr<Delegating>(delegating.Get()).Lock() || WkPtr<Delegating>(linkless.Get()).Lock());
    EXPECT_EQ(CountOf(target.Get()), 1u);
}

TEST_F(WkPtrTest, NarrowsEachClassThatPassesThroughIt) {
    const RCPtr<Tracked> plain(new Tracked(alive));
    const RCPtr<Tracked> special(new Special(alive));
    for (int round = 0; round < 2; ++round) {
        for (const RCPtr<Tracked>& object : {plain, special}) {
            EXPECT_EQ(WkPtr<Tracked>(object.Get()).Lock(), object);
        }
    }
}

void WaitFor(const std::atomic<int>& value, int least) {
    for (int now; (now = value) < least;) value.wait(now);
}

// Each round races look-ups against the last release: a look-up finds a whole object or nothing.
TEST_F(WkPtrTest, NeverFindsADeadObject) {
    constexpr int kRounds = 2000;
    constexpr int kLooks = 200;
    std::atomic<int> round{-1};
    std::atomic<int> lookersDone{0};
    WkPtr<Tracked> weak;
    std::vector<std::thread> lookers;
    for (int t = 0; t < 2; ++t) {
        lookers.emplace_back([&] {
            for (int r = 0; r < kRounds; ++r) {
                WaitFor(round, r);
                for (int i = 0; i < kLooks; ++i) {
                    const RCPtr<Tracked> found = weak.Lock();
                    EXPECT_TRUE(!found || found->intact);
                }
                ++lookersDone;
                lookersDone.notify_all();
            }
        });
    }
    for (int r = 0; r < kRounds; ++r) {
        RCPtr<Tracked> object(new Tracked(alive));
        weak = WkPtr<Tracked>(object.Get());
        round = r;
        round.notify_all();
        for (int i = 0; i < r % kLooks; ++i) weak.Lock();  // so that it comes at another moment in each round
        object = nullptr;
        WaitFor(lookersDone, 2 * (r + 1));
        EXPECT_EQ(alive, 0);
    }
    for (std::thread& looker : lookers) looker.join();
}

TEST_F(ReferenceLockTest, CountsExactlyUnderContentionAndForAHolderThatCountsItself) {
    constexpr uint32_t kThreads = 4;
    constexpr uint32_t kTurns = 5000;
    const RCPtr<Tracked> object(new Tracked(alive));
    std::atomic<uint32_t> started{0};
    std::vector<std::thread> threads;
    RCObject::LockReferences();
    for (uint32_t t = 0; t < kThreads; ++t) {
        threads.emplace_back([&] {
            ++started;
            for (uint32_t i = 0; i < kTurns; ++i) object->AddRef();
        });
    }
    while (started < kThreads) sched_yield();
    EXPECT_EQ(AddRefUnderInnerLock(*object), 2u) << "others wait";
    EXPECT_EQ(object->AddRef(), 3u) << "the inner unlock doesn't give the lock away";
    RCObject::UnlockReferences();
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(CountOf(object.Get()), 3 + kThreads * kTurns);
    for (uint32_t i = 0; i < 2 + kThreads * kTurns; ++i) object->Release();
    EXPECT_EQ(alive, 1);
}

TEST(ThreadNumber, IsTheSequenceTimesTheOddProcessFactorAndStaysWithItsThread) {
    const uint64 factor = 2 * (static_cast<uint64>(getpid()) & 0xFFFF) + 1;
    const uint64 mine = GetThreadNumber();
    uint64 last = 0;
    for (int t = 0; t < 3; ++t) {
        std::thread([&] {
            const uint64 number = GetThreadNumber();
            EXPECT_EQ(number % factor, 0u);
            if (last != 0) {
                EXPECT_EQ(number, last + factor);
            }
            EXPECT_TRUE(IsThreadNumberCurrent(number));
            EXPECT_FALSE(IsThreadNumberCurrent(mine));
            last = number;
        }).join();
    }
    EXPECT_EQ(GetThreadNumber(), mine);
}

TEST(Atomic, ReturnsTheNewValueOfAStepAndTheOldOneOfAnExchange) {
    uint32_t word = 0xFFFFFFFE;
    EXPECT_EQ(AtomicIncrement(&word), 0xFFFFFFFFu);
    EXPECT_EQ(AtomicIncrement(&word), 0u);
    EXPECT_EQ(AtomicDecrement(&word), 0xFFFFFFFFu);
    EXPECT_EQ(AtomicExchange(&word, 7), 0xFFFFFFFFu);
    EXPECT_EQ(word, 7u);
}

}  // namespace
