#include "plugin/UsbCommands.h"

#include "tests/plugin/PluginUnderTest.h"

namespace {

using qscservice::Value;
using qscservice::Values;

const std::vector<uint8_t> kBlob{'b', 0, 'c'};
const std::vector<uint8_t> kEmptyBlob;

class AgentMessages : public PluginUnderTest {
protected:
    struct Case {
        uint32_t command;
        std::vector<Value> params;
        Texts errors;       // empty: the message is handled
        Texts daemon;       // what the daemon hears
        Texts client = {};  // what the embedding client hears
    };

    void Check(const Case& c) {
        const size_t before = FakeUsbd::Texts().size();
        ForgetRecords();
        service.Deliver(kData, c.command, Values(c.params));
        EXPECT_TRUE(log.Has(kLogTrace, "Received package from peer.\n"));
        EXPECT_EQ(log.Texts(kLogError), c.errors);
        const Texts all = FakeUsbd::Texts();
        EXPECT_EQ(Texts(all.begin() + static_cast<ptrdiff_t>(before), all.end()), c.daemon);
        EXPECT_EQ(Heard(), c.client);
        EXPECT_EQ(service.Count(qscservice::Op::VariantInit), service.Count(qscservice::Op::VariantClear));
    }
};

TEST_F(AgentMessages, ActOnThisSideOrAreRefused) {
    const std::string failed0 = "Failed to parse message: 0.\n";
    const std::string failed1 = "Failed to parse message: 1.\n";
    const auto unsupported = [&](const std::string& type) {
        return Texts{"Unsupported operation type (" + type + ") from agent.\n", failed0};
    };
    const uint64_t big = (uint64_t{1} << 32) + 5;
    StartReady();
    for (const Case& c : std::vector<Case>{
             {0, {Value("filter"), Value(kEmptyBlob)}, {}, {"Usbd_SetUsbDeviceFilterEnabledStatus 1"}, {"filter on"}},
             {0, {Value("UNFILTER"), Value(kBlob)}, {}, {"Usbd_SetUsbDeviceFilterEnabledStatus 0"}, {"filter off"}},
             {0, {Value("HIDOptOperation"), Value(kBlob)}, {}, {"Usbd_PostHIDOptOperationMsg"}},
             {0, {Value("hidoptoperation"), Value(kEmptyBlob), Value(1u)}, {}, {"Usbd_PostHIDOptOperationMsg"}},
             {0, {Value("UnplugDevice"), Value(kBlob)}, unsupported("UnplugDevice"), {}},
             {0, {Value(""), Value(kBlob)}, unsupported(""), {}},
             {0, {}, {"Failed to get message type at index 0.\n", failed0}, {}},
             {0, {Value(kBlob), Value("Filter")}, {"Failed to get message type at index 0.\n", failed0}, {}},
             {0, {Value("Filter")}, {"Failed to get message blob at index 1.\n", failed0}, {}},
             {0, {Value("Filter"), Value("text")}, {"Failed to get message blob at index 1.\n", failed0}, {}},
             {1, {Value(7u), Value(uint64_t{8}), Value(uint64_t{9}), Value(kBlob)}, {}, {"Usbd_PostMsgToUsbdPoll 8 9"}},
             {1,
              {Value(7u), Value(big), Value(big - 6), Value(kEmptyBlob)},
              {},
              {"Usbd_PostMsgToUsbdPoll 5 4294967295"}},
             {1,
              {Value(big), Value(big), Value(big), Value(kBlob)},
              {"Failed to get param at index 0.\n", failed1},
              {}},
             {1, {Value(7u), Value(8u), Value(big), Value(kBlob)}, {"Failed to get param at index 1.\n", failed1}, {}},
             {1, {Value(7u), Value(big), Value(kBlob), Value(big)}, {"Failed to get param at index 2.\n", failed1}, {}},
             {1, {Value(7u), Value(big), Value(big)}, {"Failed to get param at index 3.\n", failed1}, {}},
             {1, {Value(7u), Value(big), Value(big), Value("x")}, {"Failed to get param at index 3.\n", failed1}, {}},
             {2, {Value("id"), Value(kBlob)}, {"Failed to parse message: 2.\n"}, {}},
             {3, {Value(kBlob)}, {"Unknown command [3].\n", "Failed to instantiate the QSCServiceCommand.\n"}, {}},
         }) {
        SCOPED_TRACE(testing::Message() << "command " << c.command << " with " << c.params.size() << " parameters "
                                        << (c.params.empty() ? "" : c.params[0].text));
        Check(c);
    }
}

TEST_F(AgentMessages, ReachTheDaemonWithAllTheirBytesAndLogTheirParts) {
    StartReady();
    const std::string bytes(kBlob.begin(), kBlob.end());
    service.Deliver(kData, 0, {Value("HIDOptOperation"), Value(kBlob)});
    EXPECT_EQ(FakeUsbd::Calls().back().bytes, bytes);
    service.Deliver(kData, 1, {Value(7u), Value(uint64_t{8}), Value(uint64_t{9}), Value(kBlob)});
    EXPECT_EQ(FakeUsbd::Calls().back().bytes, bytes);
    for (const char* line :
         {"Message queue id is [7].\n", "Header length is [8].\n", "Trailer is [9].\n", "Blob size is [3].\n"}) {
        EXPECT_TRUE(log.Has(kLogTrace, line)) << line;
    }
    service.Deliver(kData, 0, {Value("Filter"), Value(kBlob)});
    service.Deliver(kData, 0, {Value("UnFilter"), Value(kBlob)});
    EXPECT_TRUE(log.Has(kLogInfo, "The filter status from agent is enabled.\n"));
    EXPECT_TRUE(log.Has(kLogInfo, "The filter status from agent is disabled.\n"));
}

// Tables over one message whose answers the test sets: what the service's model never does.
struct Misbehaving {
    static inline uint32_t command;
    static inline int appendsLeft;  // appends that succeed
    static inline bool initWorks;
    static inline QSC_RPC_VARIANT param;

    static QSCRPC_ChannelContextInterface Context() {
        QSCRPC_ChannelContextInterface table{};
        table.GetCommand = [](void*) { return command; };
        table.SetCommand = [](void*, uint32_t) -> Bool { return FALSE; };
        table.GetParamCount = [](void*) { return 4; };
        table.AppendParam = [](void*, const QSC_RPC_VARIANT*) -> Bool { return appendsLeft-- > 0 ? TRUE : FALSE; };
        table.GetParam = [](void*, int, QSC_RPC_VARIANT* value) -> Bool {
            *value = param;
            return TRUE;
        };
        table.GetReturnValCount = [](void*) { return 2; };
        table.GetReturnVal = table.GetParam;
        return table;
    }
    static QSCRPC_VariantInterface Variant() {
        QSCRPC_VariantInterface table{};
        table.VariantInit = [](QSC_RPC_VARIANT* variant) -> Bool {
            variant->vt = initWorks ? 0 : QSC_VT_LPSTR;
            return initWorks;
        };
        table.VariantClear = [](QSC_RPC_VARIANT*) -> Bool { return initWorks; };
        table.VariantFromString = [](QSC_RPC_VARIANT*, const char*) -> Bool { return TRUE; };
        table.VariantFromBlob = [](QSC_RPC_VARIANT*, const QSC_RPC_BLOB*) -> Bool { return TRUE; };
        return table;
    }
};

class UsbCommands : public testing::Test {
protected:
    void SetUp() override {
        Misbehaving::command = 0;
        Misbehaving::appendsLeft = 0;
        Misbehaving::initWorks = true;
        Misbehaving::param = {};
    }

    std::unique_ptr<UsbQSCServiceCommand> Make(uint32_t command) {
        return std::unique_ptr<UsbQSCServiceCommand>(
            UsbClientCommandFactory().GetUsbCommand(command, &context, &variant, this));
    }

    const QSCRPC_ChannelContextInterface context = Misbehaving::Context();
    const QSCRPC_VariantInterface variant = Misbehaving::Variant();
    LogCapture log;
};

TEST_F(UsbCommands, NameTheParameterThatCouldNotBeAdded) {
    const std::vector<std::string> errors[] = {
        {"Failed to add message type.\n", "Failed to add message content.\n"},
        {"Failed to add message content.\n"},
        {"Failed to add message type.\n", "Failed to add message Id.\n", "Failed to add message content.\n"},
    };
    for (uint32_t number = 0; number < 3; ++number) {
        const int params = static_cast<int>(errors[number].size());
        for (int works = 0; works <= params; ++works) {
            SCOPED_TRACE(testing::Message() << number << " " << works);
            log.Clear();
            Misbehaving::appendsLeft = works;
            const auto command = Make(number);
            EXPECT_EQ(command->CreateRequest(), works == params ? this : nullptr);
            std::vector<std::string> expected;
            if (works < params) expected.push_back(errors[number][static_cast<size_t>(works)]);
            EXPECT_EQ(log.Texts(kLogError), expected);
        }
    }
}

TEST_F(UsbCommands, RefuseAMessageOfAnotherNumber) {
    Misbehaving::command = 77;
    EXPECT_FALSE(Make(0)->ParseRequest() || Make(1)->ParseRequest() || Make(2)->ParseResponse());
    EXPECT_EQ(log.Texts(kLogError), std::vector<std::string>(3, "Unexpected command received: 77.\n"));
}

TEST_F(UsbCommands, TakeNoValueWithoutContentFromTheService) {
    Misbehaving::param.vt = QSC_VT_LPSTR;  // and no text
    EXPECT_FALSE(Make(0)->ParseRequest());
    Misbehaving::initWorks = false;
    EXPECT_FALSE(Make(0)->ParseRequest());
    EXPECT_EQ(log.Texts(kLogError), std::vector<std::string>(2, "Failed to get message type at index 0.\n"));
}

TEST_F(UsbCommands, SayWhichOperationsTheyLack) {
    EXPECT_FALSE(Make(0)->CreateResponse() || Make(1)->ParseResponse() || Make(2)->ParseRequest());
    EXPECT_EQ(Make(2)->UsbQSCServiceCommand::CreateRequest(), nullptr);
    for (const char* name : {"CreateResponse", "ParseResponse", "ParseRequest", "CreateRequest"}) {
        EXPECT_TRUE(log.Has(kLogInfo, std::string("The method ") + name + " is not implemented.\n")) << name;
    }
    UsbPostMsgClientCommand command(&context, &variant, this);
    EXPECT_EQ(command.GetFilterMsgType("UemIsReady"), FilterMsgType::None);
    EXPECT_EQ(command.GetFilterMsgType(nullptr), FilterMsgType::None);
    EXPECT_EQ(log.Texts(kLogError), (std::vector<std::string>{"Unsupported filter msg type(UemIsReady) from agent.\n",
                                                              "Unsupported filter msg type() from agent.\n"}));
}

}  // namespace
