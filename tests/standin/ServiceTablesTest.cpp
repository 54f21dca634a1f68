#include "standin/qscservice/ServiceTables.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <functional>
#include <map>
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

Bool Ask(uint8_t id, void* table) {
    return Ask(QSC_MakeInterfaceId(id), table);
}

template <class T>
T Fetch(uint8_t id) {
    T table = {};
    EXPECT_EQ(Ask(id, &table), TRUE) << unsigned{id};
    return table;
}

std::set<unsigned> Answered() {
    std::set<unsigned> ids;
    for (unsigned id = 0; id < 256; ++id) {
        Buffer buffer;
        if (Ask(static_cast<uint8_t>(id), buffer.data()) == TRUE) ids.insert(id);
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
        ASSERT_EQ(Ask(c.id, buffer.data()), TRUE);
        std::set<size_t> functions;
        for (size_t i = 0; i < c.filled; ++i) {
            EXPECT_NE(buffer[i], kUntouched) << i;
            if (buffer[i] != 0) functions.insert(i);
        }
        EXPECT_EQ(functions, c.functions);
        for (size_t i = c.filled; i < kRoom; ++i) EXPECT_EQ(buffer[i], kUntouched) << i;
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
    buffer.fill(kUntouched);
    for (const size_t i : {0, 3, 5, 15}) {
        QSC_INTERFACE_ID id = QSC_MakeInterfaceId(0x0B);
        id.bytes[i] ^= 0x80;
        EXPECT_EQ(Ask(id, buffer.data()), FALSE) << i;
    }
    EXPECT_EQ(Query().QueryInterface(nullptr, buffer.data()), FALSE);
    EXPECT_EQ(Ask(0x0B, nullptr), FALSE);
    EXPECT_EQ(buffer[3], kUntouched);
}

// A channel with one connected object, whose tables are called as the framework calls them.
class TableWords : public testing::Test {
protected:
    TableWords() {
        EXPECT_EQ(channel.v1.RegisterChannelNotifySink(&kSink, nullptr, &cookie), TRUE);
        EXPECT_TRUE(service.FireConnectionState(QSC_CONNECTION_CONNECTED));
        EXPECT_EQ(channel.v1.Connect(), TRUE);
        EXPECT_TRUE(service.FireChannelState(QSC_CHANNEL_CONNECTED));
        EXPECT_EQ(object.CreateChannelObject("obj", &kObjectSink, nullptr, 0x0D, &hObject), TRUE);
        EXPECT_TRUE(service.FireObjectState("obj", QSC_OBJECT_CONNECTED));
    }

    void* NewContext() {
        void* hContext = nullptr;
        EXPECT_EQ(object.CreateContextEx(hObject, 1, &hContext), TRUE);
        return hContext;
    }

    bool Invoke(void* hContext) { return object.Invoke(hObject, hContext, &kContextSink, nullptr) == TRUE; }

    static constexpr QSCService_ChannelNotifySink kSink = {
        1, [](void*, QSCService_ConnectionState, QSCService_ConnectionState, void*) {},
        [](void*, QSCService_ChannelState, QSCService_ChannelState, void*) {}, [](void*, const char*, void*) {}};
    static constexpr QSCRPC_ObjectNotifySink kObjectSink = {1, [](void*, void*, void*) {}, [](void*, void*) {}};
    static constexpr QSCRPC_ContextNotifySink kContextSink = {1, [](void*, uint32_t, void*) {},
                                                              [](void*, uint32_t, Bool, uint32_t) {}};

    ScriptedService service;
    const QSCService_ChannelInterface channel = Fetch<QSCService_ChannelInterface>(0x0B);
    const QSCRPC_ChannelObjectInterface object = Fetch<QSCRPC_ChannelObjectInterface>(0x12);
    const QSCRPC_ChannelContextInterface context = Fetch<QSCRPC_ChannelContextInterface>(0x08);
    const QSCRPC_VariantInterface variant = Fetch<QSCRPC_VariantInterface>(0x00);
    uint32_t cookie = 0;
    void* hObject = nullptr;
};

TEST_F(TableWords, AMessageCarriesEveryKindOfValueInEachRole) {
    const uint8_t bytes[] = {1, 0, 255};
    const QSC_RPC_BLOB blob = {sizeof bytes, bytes};
    const QSC_RPC_BLOB emptyBlob = {0, nullptr};
    struct Case {
        std::function<Bool(QSC_RPC_VARIANT*)> make;
        Value expected;
    };
    const auto number = [](uint16_t kind, uint64_t bits) {
        Value value;
        value.kind = kind;
        value.number = bits;
        return value;
    };
    const std::vector<Case> cases = {
        {[&](QSC_RPC_VARIANT* v) { return variant.VariantInit(v); }, Value()},
        {[&](QSC_RPC_VARIANT* v) { return variant.VariantFromChar(v, 'x'); }, number(kKindInt8, 'x')},
        {[&](QSC_RPC_VARIANT* v) { return variant.VariantFromShort(v, -2); }, number(kKindInt16, 0xFFFE)},
        {[&](QSC_RPC_VARIANT* v) { return variant.VariantFromUShort(v, 65535); }, number(kKindUInt16, 65535)},
        {[&](QSC_RPC_VARIANT* v) { return variant.VariantFromInt32(v, -3); }, Value(int32_t{-3})},
        {[&](QSC_RPC_VARIANT* v) { return variant.VariantFromUInt32(v, 4000000000u); }, Value(4000000000u)},
        {[&](QSC_RPC_VARIANT* v) { return variant.VariantFromInt64(v, -4); }, Value(int64_t{-4})},
        {[&](QSC_RPC_VARIANT* v) { return variant.VariantFromUInt64(v, ~uint64_t{0}); }, Value(~uint64_t{0})},
        {[&](QSC_RPC_VARIANT* v) { return variant.VariantFromFloat(v, 1.0f); }, number(kKindFloat, 0x3F800000)},
        {[&](QSC_RPC_VARIANT* v) { return variant.VariantFromDouble(v, 1.0); },
         number(kKindDouble, 0x3FF0000000000000)},
        {[&](QSC_RPC_VARIANT* v) { return variant.VariantFromString(v, "text"); }, Value("text")},
        {[&](QSC_RPC_VARIANT* v) { return variant.VariantFromBlob(v, &blob); }, Value(std::span<const uint8_t>(bytes))},
        {[&](QSC_RPC_VARIANT* v) { return variant.VariantFromBlob(v, &emptyBlob); }, Value(std::span<const uint8_t>())},
    };
    void* hContext = NewContext();
    EXPECT_EQ(context.SetCommand(hContext, 42), TRUE);
    for (const Case& c : cases) {
        QSC_RPC_VARIANT value;
        ASSERT_EQ(variant.VariantInit(&value), TRUE);
        ASSERT_EQ(c.make(&value), TRUE);
        EXPECT_EQ(context.AppendParam(hContext, &value), 1);
        EXPECT_EQ(context.AppendNamedParam(hContext, "name", &value), 1);
        EXPECT_EQ(variant.VariantClear(&value), TRUE);
    }
    const uint32_t id = context.GetId(hContext);
    ASSERT_TRUE(Invoke(hContext));
    const Message sent = service.Sent().back();
    EXPECT_EQ(sent.object, "obj");
    EXPECT_EQ(sent.command, 42u);
    EXPECT_EQ(sent.requestId, id);
    ASSERT_EQ(sent.params.size(), cases.size());
    for (size_t i = 0; i < cases.size(); ++i) {
        EXPECT_EQ(sent.params[i], cases[i].expected) << i;
        EXPECT_EQ(sent.namedParams[i], std::pair(std::string("name"), cases[i].expected)) << i;
    }
    EXPECT_TRUE(service.Complete(id, {}));
    EXPECT_EQ(ScriptedService::LiveContexts(), 0u);
}

TEST_F(TableWords, AContextReadsWhatItHoldsAndRefusesTheRest) {
    void* hContext = NewContext();
    QSC_RPC_VARIANT value, unknown;
    variant.VariantFromUInt32(&value, 7);
    variant.VariantInit(&unknown);
    unknown.vt = 9;
    ASSERT_EQ(context.AppendParam(hContext, &value), TRUE);
    ASSERT_EQ(context.AppendNamedParam(hContext, "a long name", &value), TRUE);
    EXPECT_EQ(context.AppendParam(hContext, &unknown), FALSE);
    EXPECT_EQ(context.AppendParam(hContext, nullptr), FALSE);
    EXPECT_EQ(context.AppendNamedParam(hContext, nullptr, &value), FALSE);
    EXPECT_EQ(context.SetOption(hContext, QSC_CONTEXT_OPTION_POST, &unknown), FALSE);
    EXPECT_EQ(context.SetOption(hContext, QSC_CONTEXT_OPTION_POST + 1, &value), FALSE);

    QSC_RPC_VARIANT read = {};
    EXPECT_EQ(context.GetParamCount(hContext), 1);
    ASSERT_EQ(context.GetParam(hContext, 0, &read), TRUE);
    EXPECT_EQ(read.uint32Val, 7u);
    EXPECT_EQ(context.GetParam(hContext, 1, &read), FALSE);
    EXPECT_EQ(context.GetParam(hContext, -1, &read), FALSE);
    EXPECT_EQ(context.GetReturnVal(hContext, 0, &read), FALSE);
    for (const auto& [size, expected] : std::map<int, const char*>{{12, "a long name"}, {11, "a long nam"}, {1, ""}}) {
        char name[] = "???????????????";
        ASSERT_EQ(context.GetNamedParam(hContext, 0, name, size, &read), TRUE);
        EXPECT_STREQ(name, expected);
        EXPECT_EQ(name[size], '?');
    }
    char name[4];
    EXPECT_EQ(context.GetNamedParam(hContext, 0, name, 0, &read), FALSE);
    EXPECT_EQ(context.GetNamedParam(hContext, 0, nullptr, 4, &read), FALSE);
    EXPECT_EQ(object.DestroyContext(hContext), TRUE);
}

TEST_F(TableWords, AHandleThatNamesNoContextOfTheCallersIsRefused) {
    void* gone = NewContext();
    ASSERT_EQ(object.DestroyContext(gone), TRUE);
    void* invoked = NewContext();
    const uint32_t id = context.GetId(invoked);
    ASSERT_TRUE(Invoke(invoked));
    QSC_RPC_VARIANT value;
    variant.VariantFromUInt32(&value, 1);
    char name[8];
    int local = 0;
    for (void* handle : {gone, invoked, static_cast<void*>(nullptr), static_cast<void*>(&local), hObject}) {
        EXPECT_EQ(object.DestroyContext(handle), FALSE);
        EXPECT_FALSE(Invoke(handle));
        EXPECT_EQ(context.GetCommand(handle), 0u);
        EXPECT_EQ(context.SetCommand(handle, 1), FALSE);
        EXPECT_EQ(context.AppendParam(handle, &value), FALSE);
        EXPECT_EQ(context.GetNamedParam(handle, 0, name, 8, &value), FALSE);
        EXPECT_EQ(context.GetReturnValCount(handle), 0);
        EXPECT_EQ(context.AppendReturnVal(handle, &value), FALSE);
        EXPECT_EQ(context.SetOption(handle, QSC_CONTEXT_OPTION_POST, &value), FALSE);
    }
    EXPECT_EQ(service.Sent().size(), 1u);
    EXPECT_TRUE(service.Complete(id, {}));
    for (void* handle : {gone, static_cast<void*>(nullptr), static_cast<void*>(&local)}) {
        uint32_t options = 0;
        EXPECT_EQ(object.DestroyChannelObject(handle), FALSE);
        EXPECT_EQ(object.GetObjectState(handle), QSC_OBJECT_UNINITIALIZED);
        EXPECT_EQ(object.GetObjectOptions(handle, &options), FALSE);
        EXPECT_EQ(object.CreateContext(handle, &gone), FALSE);
        EXPECT_EQ(object.RequestSideChannel(handle, 1, "name"), FALSE);
    }
    EXPECT_EQ(ScriptedService::LiveContexts(), 0u);
}

TEST(ServiceErrors, GoToTheHandlerThatIsSet) {
    std::vector<std::string> lines;
    SetErrorHandler([&](std::string_view line) { lines.emplace_back(line); });
    ReportError("first");
    SetErrorHandler({});
    testing::internal::CaptureStderr();
    ReportError("second");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "qscservice: second\n");
    EXPECT_EQ(lines, std::vector<std::string>{"first"});
}

}  // namespace
