#include "runtime/UserDataMap.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "tests/support/LogCapture.h"

namespace {

class Thing : public RCObject {};

using ThingMap = UserDataMap<WkPtr<Thing>>;

TEST(UserDataMap, FindsAnObjectWhileItLivesAndIsRegistered) {
    ThingMap map;
    RCPtr<Thing> kept(new Thing);
    RCPtr<Thing> dropped(new Thing);
    const uint32_t keptHandle = map.Add(WkPtr<Thing>(kept.Get()));
    const uint32_t droppedHandle = map.Add(WkPtr<Thing>(dropped.Get()));
    EXPECT_EQ(map.Find(keptHandle).Lock(), kept);
    EXPECT_EQ(map.Find(droppedHandle).Lock(), dropped);
    dropped = nullptr;
    EXPECT_FALSE(map.Find(droppedHandle).Lock()) << "the entry keeps nothing alive";
    map.Erase(keptHandle);
    EXPECT_FALSE(map.Find(keptHandle).Lock()) << "an erased entry is gone, though its object lives";
    map.Erase(keptHandle);
    EXPECT_FALSE(map.Find(0));
}

TEST(UserDataMap, NumbersTheHandlesOfAllMapsFromOneCounterOfTwelveBits) {
    ThingMap map;
    ThingMap other;
    const RCPtr<Thing> thing(new Thing);
    const WkPtr<Thing> entry(thing.Get());
    gHandleCounter = 0;
    EXPECT_EQ(map.Add(entry), 0xABCD0001u) << "the first handle of a process";
    EXPECT_EQ(other.Add(entry), 0xABCD0002u);
    EXPECT_EQ(map.Add(entry), 0xABCD0003u);
    EXPECT_FALSE(map.Find(0xABCD0002));
    gHandleCounter = 0xFFE;
    EXPECT_EQ(map.Add(entry), 0xABCD0FFFu);
    EXPECT_EQ(map.Add(entry), 0xABCD0000u);
    EXPECT_EQ(map.Add(entry), 0xABCD0002u) << "0xABCD0001 is in use";
    EXPECT_EQ(map.Add(entry), 0xABCD0004u) << "0xABCD0003 is in use";
    gHandleCounter = 0xFFFFFFFF;
    EXPECT_EQ(other.Add(entry), 0xABCD0000u) << "the counter itself may wrap";
}

TEST(UserDataMap, RefusesAnEntryBeyondTheLastHandle) {
    ThingMap map;
    const RCPtr<Thing> first(new Thing);
    const RCPtr<Thing> last(new Thing);
    for (int i = 0; i < 4096; ++i) map.Add(WkPtr<Thing>(first.Get()));
    const LogCapture capture(kLogError);
    EXPECT_EQ(map.Add(WkPtr<Thing>(last.Get())), 0u);
    ASSERT_EQ(capture.Texts(kLogError).size(), 1u);
    EXPECT_NE(capture.Texts(kLogError)[0].find("is full with 4096 entries"), std::string::npos);
    for (uint32_t index = 0; index <= 0xFFF; ++index) ASSERT_EQ(map.Find(0xABCD0000 | index).Lock(), first);
    map.Erase(0xABCD0123);
    EXPECT_EQ(map.Add(WkPtr<Thing>(last.Get())), 0xABCD0123u);
    EXPECT_EQ(map.Find(0xABCD0123).Lock(), last);
}

TEST(UserDataMap, ServesManyThreads) {
    ThingMap map;
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 500; ++i) {
                RCPtr<Thing> mine(new Thing);
                const uint32_t handle = map.Add(WkPtr<Thing>(mine.Get()));
                EXPECT_EQ(map.Find(handle).Lock(), mine);
                map.Find(handle ^ 1).Lock();  // perhaps another thread's, alive or dying
                mine = nullptr;
                map.Erase(handle);
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    for (uint32_t index = 0; index <= 0xFFF; ++index) EXPECT_FALSE(map.Find(0xABCD0000 | index));
}

}  // namespace
