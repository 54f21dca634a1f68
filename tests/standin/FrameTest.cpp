#include "standin/qscservice/Frame.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using namespace qscservice;

using Bytes = std::vector<uint8_t>;

const Bytes kBlob = {1, 0, 255, 7, 9};

Value Number(uint16_t kind, uint64_t bits) {
    Value value;
    value.kind = kind;
    value.number = bits;
    return value;
}

void SealAsPost(Bytes* frame, uint32_t itemCount) {
    FrameHeader header = {};
    header.type = FrameType::Post;
    header.itemCount = itemCount;
    SealFrame(frame, header);
}

Bytes OneItem(const Value& value) {
    return MakeFrame(FrameType::Post, {value});
}

TEST(FrameTest, CarriesEveryKindOfValueInEveryRole) {
    const std::vector<Value> values = {Value(),          Value(int32_t{-1}), Number(kKindInt8, 0xFF), Value(""),
                                       Value("seven.."), Value("eight..."),  Value(Bytes()),          Value(kBlob)};
    Bytes frame;
    BeginFrame(&frame);
    FrameHeader header = {};
    header.type = FrameType::Request;
    header.object = 3;
    header.command = 0xFFFFFFFF;
    header.requestId = 77;
    for (const Value& value : values) {
        for (const auto& [role, name] : {std::pair(ItemRole::Param, ""),
                                         {ItemRole::NamedParam, "the name"},
                                         {ItemRole::NamedParam, ""},
                                         {ItemRole::ReturnValue, ""}}) {
            ASSERT_TRUE(AppendItem(&frame, role, name, value));
            EXPECT_EQ(frame.size() % 8, 0u);
            ++header.itemCount;
        }
    }
    SealFrame(&frame, header);

    FrameView view;
    const DecodeResult result = DecodeFrame(frame, &view);
    ASSERT_EQ(result.status, DecodeResult::Complete) << result.error;
    EXPECT_EQ(result.size, frame.size());
    EXPECT_EQ(view.header.type, FrameType::Request);
    EXPECT_EQ(view.header.object, 3u);
    EXPECT_EQ(view.header.command, 0xFFFFFFFFu);
    EXPECT_EQ(view.header.requestId, 77u);
    size_t offset = 0;
    Item item;
    for (const Value& value : values) {
        for (const char* name : {"", "the name", "", ""}) {
            ASSERT_TRUE(ReadItem(view.items, &offset, &item));
            EXPECT_EQ(item.value, value);
            EXPECT_EQ(item.name, name);
            if (value.kind == QSC_VT_LPSTR) {
                EXPECT_EQ(item.value.text.data()[value.text.size()], '\0');
            }
        }
    }
    EXPECT_FALSE(ReadItem(view.items, &offset, &item));
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
    two.insert(two.end(), frame.begin(), frame.end());
    two.resize(two.size() - 1);
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
    const Bytes number = OneItem(Value(5u));
    const Bytes text = OneItem(Value("abc"));
    const Bytes blob = OneItem(Value(kBlob));
    Bytes named;
    BeginFrame(&named);
    ASSERT_TRUE(AppendItem(&named, ItemRole::NamedParam, "abc", Value(1u)));
    SealAsPost(&named, 1);
    for (const Case& c : std::vector<Case>{
             {"mark", number, 0, {0}, "frame does not begin with the frame mark"},
             {"too long", number, 4, {8, 0, 0, 4}, "frame is longer than the limit"},
             {"shorter than a header", number, 4, {24, 0, 0, 0}, "frame has an impossible length"},
             {"odd length", number, 4, {47}, "frame has an impossible length"},
             {"type 0", number, 8, {0}, "frame is of unknown type"},
             {"type past the last", number, 8, {static_cast<uint8_t>(kLastFrameType) + 1}, "frame is of unknown type"},
             {"reserved word", number, 10, {1}, "frame is of unknown type"},
             {"item count", number, 28, {1, 16}, "frame has more items than the limit"},
             {"fewer items than told", number, 28, {2}, item},
             {"more items than told", number, 28, {0}, item},
             {"unknown kind", number, kItem, {9}, item},
             {"number that is empty", number, kItem, {0}, item},
             {"unknown role", number, kItem + 2, {3}, item},
             {"reserved byte", number, kItem + 3, {1}, item},
             {"short number", number, kItem + 4, {4}, item},
             {"item beyond the frame", number, kItem + 4, {0xF8, 0xFF, 0xFF, 0xFF}, item},
             {"item whose padding wraps", number, kItem + 4, {0xFF, 0xFF, 0xFF, 0xFF}, item},
             {"text without its end", text, kItem + 4, {3}, item},
             {"text of no bytes", text, kItem + 4, {0}, item},
             {"zero inside a text", text, kItem + 9, {0}, item},
             {"blob beyond the frame", blob, kItem + 4, {9}, item},
             {"name beyond the frame", named, kItem + 8, {100}, item},
             {"name beyond the limit", named, kItem + 8, {0, 8}, item},
             {"name whose size wraps", named, kItem + 8, {0xFF, 0xFF, 0xFF, 0xFF}, item},
             {"name without its end", named, kItem + 8, {2}, item},
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
    EXPECT_FALSE(AppendItem(&frame, ItemRole::NamedParam, longest + "n", Value(1u)));
    EXPECT_FALSE(AppendItem(&frame, ItemRole::NamedParam, std::string_view("a\0b", 3), Value(1u)));
    EXPECT_FALSE(AppendItem(&frame, ItemRole::Param, {}, Value(std::string_view("a\0b", 3))));
    EXPECT_FALSE(AppendItem(&frame, ItemRole::Param, {}, Number(9, 1)));
    EXPECT_EQ(frame, before);

    const size_t room = kMaxFrameBytes - before.size() - 8;
    const Bytes large(room + 1, 1);
    EXPECT_FALSE(AppendItem(&frame, ItemRole::Param, {}, Value(large)));
    EXPECT_EQ(frame, before);
    EXPECT_TRUE(AppendItem(&frame, ItemRole::Param, {}, Value(std::span(large).first(room))));
    EXPECT_EQ(frame.size(), kMaxFrameBytes);
    EXPECT_FALSE(AppendItem(&frame, ItemRole::Param, {}, Value()));
    SealAsPost(&frame, 2);
    FrameView view;
    EXPECT_EQ(DecodeFrame(frame, &view).status, DecodeResult::Complete);
}

}  // namespace
