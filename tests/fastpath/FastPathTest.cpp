#include <gtest/gtest.h>

#include <vector>

#include "tests/support/AllocationCount.h"
#include "tests/support/BareService.h"

namespace {

using Op = BareService::Op;

class FastPath : public testing::Test {
protected:
    static void SetUpTestSuite() {
        ASSERT_EQ(BareService::Start(BUILD_FOLDER "/lib/vchan_plugins/libusbRedirectionClient.so"), "");
    }
    static void TearDownTestSuite() { BareService::Stop(); }
};

TEST_F(FastPath, MakesOneMessageWithTheFewestTableCalls) {
    const std::vector<unsigned char> payload(4096, 0x5A);
    BareService::Record(true);
    ASSERT_TRUE(BareService::PostFastByHand(payload.size(), payload.data()));
    const std::vector<Op> byHand = BareService::Recorded();
    BareService::Record(true);
    ASSERT_TRUE(BareService::PostFast(payload.size(), payload.data()));
    BareService::Record(false);
    EXPECT_EQ(BareService::Recorded(), byHand);
}

TEST_F(FastPath, HandsTheCallersOwnBytesToTheService) {
    for (size_t size : {size_t{0}, size_t{1}, size_t{64}, size_t{4096}, size_t{65536}, size_t{1048576}}) {
        const std::vector<unsigned char> payload(size + 1, 0xA5);
        BareService::Record(true);
        ASSERT_TRUE(BareService::PostFast(size, payload.data()));
        BareService::Record(false);
        EXPECT_EQ(BareService::LastBlobData(), payload.data());
        EXPECT_EQ(BareService::LastBlobSize(), size);
    }
}

TEST_F(FastPath, AllocatesNothing) {
    if (!AllocationCount::Works()) GTEST_SKIP() << "a sanitizer owns the allocator";
    const std::vector<unsigned char> payload(65536, 0x5A);
    ASSERT_TRUE(BareService::PostFast(payload.size(), payload.data()));
    AllocationCount allocations;
    for (int i = 0; i < 1000; ++i) ASSERT_TRUE(BareService::PostFast(payload.size(), payload.data()));
    EXPECT_EQ(allocations.Count(), 0u);
}

}  // namespace
