#include "standin/qscservice/ServiceTables.h"

#include <gtest/gtest.h>

#include <array>
#include <set>

#include "standin/qscservice/ScriptedService.h"

namespace {

using namespace qscservice;

using Word = uintptr_t;

constexpr size_t kRoom = 32;  // words, more than any table has
constexpr Word kUntouched = static_cast<Word>(0xA5A5A5A5A5A5A5A5u);

using Buffer = std::array<Word, kRoom>;

Bool Ask(const QSC_INTERFACE_ID& id, void* table) {
    return Query().QueryInterface(&id, table);
}

std::set<unsigned> Answered() {
    std::set<unsigned> ids;
    for (unsigned id = 0; id < 256; ++id) {
        Buffer buffer;
        if (Ask(QSC_MakeInterfaceId(static_cast<uint8_t>(id)), buffer.data()) == TRUE) ids.insert(id);
    }
    return ids;
}

TEST(ServiceTables, EachVersionFillsItsWordsAndNothingBehindThem) {
    struct Case {
        uint8_t id;
        std::set<size_t> functions;
        size_t filled;  // words
    };
    for (const Case& c : std::vector<Case>{{0x0B, {3, 4, 5, 6, 7, 8, 10, 11, 12}, 15},
                                           {0x10, {3, 4, 5, 6, 7, 8, 10, 11}, 12},
                                           {0x06, {3, 4, 5, 6, 7, 8, 11}, 12},
                                           {0x0F, {1, 2, 3, 5, 6, 7, 8, 9, 10, 11}, 13},
                                           {0x0A, {1, 2, 3, 5, 6, 7, 8, 9, 10}, 11},
                                           {0x02, {1, 2, 3, 5, 6, 7, 8, 9}, 10},
                                           {0x03, {1, 2, 3, 6, 7, 8, 9, 10, 13, 14, 15, 18}, 19},
                                           {0x00, {1, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14}, 15},
                                           {0x0C, {}, 9},
                                           {0x05, {}, 26}}) {
        SCOPED_TRACE(testing::Message() << "id " << unsigned{c.id});
        Buffer buffer;
        buffer.fill(kUntouched);
        ASSERT_EQ(Ask(QSC_MakeInterfaceId(c.id), buffer.data()), TRUE);
        std::set<size_t> functions;
        for (size_t i = 0; i < kRoom; ++i) {
            EXPECT_EQ(buffer[i] == kUntouched, i >= c.filled) << i;
            if (i < c.filled && buffer[i] != 0) functions.insert(i);
        }
        EXPECT_EQ(functions, c.functions);
    }
}

TEST(ServiceTables, TheQueryAnswersForTheOfferedIdsOnly) {
    const std::set<unsigned> all = {0, 2, 3, 5, 6, 7, 8, 0xA, 0xB, 0xC, 0xD, 0xE, 0xF, 0x10, 0x12, 0x16, 0x18, 0x19};
    EXPECT_EQ(Answered(), all);
    {
        const ScriptedService service;
        OfferTable(Table::Overlay, {});
        OfferOldest(Table::Channel);
        OfferNewest(Table::ChannelObject);
        OfferTable(Table::ChannelContext, {0x03, 0x0B, 0x19, 0xFF});
        OfferOldest(Table::StreamData);
        EXPECT_EQ(Answered(), (std::set<unsigned>{0, 3, 6, 0xC, 0xD, 0x12}));
    }
    EXPECT_EQ(Answered(), all);

    Buffer buffer;
    for (const size_t i : {0, 3, 5, 15}) {
        QSC_INTERFACE_ID id = QSC_MakeInterfaceId(0x0B);
        id.bytes[i] ^= 0x80;
        EXPECT_EQ(Ask(id, buffer.data()), FALSE) << i;
    }
}

}  // namespace
