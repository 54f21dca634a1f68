#include "standin/qscservice/Frame.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using namespace qscservice;

using Bytes = std::vector<uint8_t>;

const Bytes kBlob = {1, 0, 255, 7, 9};

Bytes OneItem(ItemRole role, std::string_view name, const Value& value) {
    Bytes frame;
    BeginFrame(&frame);
    EXPECT_TRUE(AppendItem(&frame, role, name, value));
    FrameHeader header = {};
    header.type = FrameType::Post;
    header.itemCount = 1;
    SealFrame(&frame, header);
    return frame;
}

TEST(FrameTest, CarriesEveryKindOfValueInEveryRole) {
    for (const Value& value : {Value(), Value(int32_t{-1}), Value(~uint64_t{0}), Value(""), Value("seven.."),
                               Value("eight..."), Value(Bytes()), Value(kBlob)}) {
        for (const auto& [role, name] : {std::pair(ItemRole::Param, ""),
                                         {ItemRole::NamedParam, "the name"},
                                         {ItemRole::NamedParam, ""},
                                         {ItemRole::ReturnValue, ""}}) {
            const Bytes frame = OneItem(role, name, value);
            FrameView view;
            const DecodeResult result = DecodeFrame(frame, &view);
            ASSERT_EQ(result.status, DecodeResult::Complete) << result.error;
            EXPECT_EQ(result.size, frame.size());
            size_t offset = 0;
            Item item;
            ASSERT_TRUE(ReadItem(view.items, &offset, &item));
            EXPECT_EQ(item.role, role);
            EXPECT_EQ(item.name, name);
            EXPECT_EQ(item.value, value);
            EXPECT_FALSE(ReadItem(view.items, &offset, &item));
        }
    }
}

TEST(FrameTest, AsksForTheRestOfACutFrameAndLeavesWhatFollowsAlone) {
    const Bytes frame = MakeFrame(FrameType::ObjectCreated, {Value("name"), Value(1u), Value(kBlob)});
    FrameView view;
    for (size_t size = 0; size < frame.size(); ++size) {
        const DecodeResult result = DecodeFrame(std::span(frame).first(size), &view);
        ASSERT_EQ(result.status, DecodeResult::NeedMore) << size;
        EXPECT_EQ(result.size, size < sizeof(FrameHeader) ? sizeof(FrameHeader) : frame.size());
    }
    Bytes two = frame;
    two.insert(two.end(), frame.begin(), frame.end() - 1);
    EXPECT_EQ(DecodeFrame(two, &view).size, frame.size());
    EXPECT_EQ(ItemValues(view).size(), 3u);
}

TEST(FrameTest, TellsWhatIsWrongWithAFrame) {
    struct Case {
        const char* name;
        Bytes frame;
        size_t at;
        Bytes patch;
        const char* error;
    };
    constexpr size_t kItem = sizeof(FrameHeader);
    const char* item = "frame has a broken item";
    const Bytes number = OneItem(ItemRole::Param, "", Value(5u));
    const Bytes text = OneItem(ItemRole::Param, "", Value("abc"));
    const Bytes named = OneItem(ItemRole::NamedParam, "abc", Value(1u));
    for (const Case& c : std::vector<Case>{
             {"mark", number, 0, {0}, "frame does not begin with the frame mark"},
             {"too long", number, 4, {8, 0, 0, 4}, "frame is longer than the limit"},
             {"odd length", number, 4, {47}, "frame has an impossible length"},
             {"type past the last", number, 8, {static_cast<uint8_t>(kLastFrameType) + 1}, "frame is of unknown type"},
             {"item count", number, 28, {1, 16}, "frame has more items than the limit"},
             {"fewer items than told", number, 28, {2}, item},
             {"unknown kind", number, kItem, {9}, item},
             {"short number", number, kItem + 4, {4}, item},
             {"item beyond the frame", number, kItem + 4, {0xF8, 0xFF, 0xFF, 0xFF}, item},
             {"item whose padding wraps", number, kItem + 4, {0xFF, 0xFF, 0xFF, 0xFF}, item},
             {"text without its end", text, kItem + 4, {3}, item},
             {"zero inside a text", text, kItem + 9, {0}, item},
             {"name whose size wraps", named, kItem + 8, {0xFF, 0xFF, 0xFF, 0xFF}, item},
         }) {
        Bytes frame = c.frame;
        std::copy(c.patch.begin(), c.patch.end(), frame.begin() + static_cast<std::ptrdiff_t>(c.at));
        FrameView view;
        const DecodeResult result = DecodeFrame(frame, &view);
        EXPECT_EQ(result.status, DecodeResult::Malformed) << c.name;
        EXPECT_STREQ(result.error, c.error) << c.name;
    }
}

TEST(FrameTest, RefusesWhatPassesALimitAndChangesNothing) {
    const std::string longest(kMaxNameBytes, 'n');
    Bytes frame;
    BeginFrame(&frame);
    EXPECT_TRUE(AppendItem(&frame, ItemRole::NamedParam, longest, Value(1u)));
    const Bytes before = frame;
    const size_t room = kMaxFrameBytes - before.size() - 8;
    const Bytes large(room + 1, 1);
    EXPECT_FALSE(AppendItem(&frame, ItemRole::NamedParam, longest + "n", Value(1u)));
    EXPECT_FALSE(AppendItem(&frame, ItemRole::NamedParam, std::string_view("a\0b", 3), Value(1u)));
    EXPECT_FALSE(AppendItem(&frame, ItemRole::Param, {}, Value(std::string_view("a\0b", 3))));
    EXPECT_FALSE(AppendItem(&frame, ItemRole::Param, {}, Value(large)));
    EXPECT_EQ(frame, before);
    EXPECT_TRUE(AppendItem(&frame, ItemRole::Param, {}, Value(std::span(large).first(room))));
    EXPECT_EQ(frame.size(), kMaxFrameBytes);
    EXPECT_FALSE(AppendItem(&frame, ItemRole::Param, {}, Value()));
}

}  // namespace
