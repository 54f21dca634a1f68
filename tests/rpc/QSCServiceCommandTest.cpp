#include "rpc/QSCServiceCommand.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/LogCapture.h"

namespace {

using Texts = std::vector<std::string>;

class Command : public QSCServiceCommand {
public:
    using QSCServiceCommand::QSCServiceCommand;
};

// Tables that note each call with what it was given, and answer with what a test sets. One at a time.
class Tables {
public:
    Tables() {
        current = this;
        contexts.GetCommand = [](void* hContext) { return current->Is(hContext) ? 0xFFFFFFF0u : 0u; };
        contexts.SetCommand = [](void*, uint32_t command) { return current->Call("command", std::to_string(command)); };
        contexts.GetParamCount = [](void*) { return current->count; };
        contexts.GetReturnValCount = [](void*) { return current->count; };
        contexts.AppendParam = [](void* hContext, const QSC_RPC_VARIANT* value) {
            EXPECT_TRUE(current->Is(hContext));
            return current->Call("append", Text(*value));
        };
        contexts.AppendNamedParam = [](void* hContext, const char* name, const QSC_RPC_VARIANT* value) {
            EXPECT_TRUE(current->Is(hContext));
            return current->Call("append", std::string(name) + "=" + Text(*value));
        };
        contexts.AppendReturnVal = [](void* hContext, const QSC_RPC_VARIANT* value) {
            EXPECT_TRUE(current->Is(hContext));
            return current->Call("append", "return " + Text(*value));
        };
        contexts.GetParam = [](void*, int index, QSC_RPC_VARIANT* value) {
            value->vt = QSC_VT_UI4;
            return current->Call("get", "param " + std::to_string(index));
        };
        contexts.GetNamedParam = [](void*, int index, char* name, int nameSize, QSC_RPC_VARIANT* value) {
            value->vt = QSC_VT_UI8;
            // A careless service: fills the buffer to its last byte.
            for (int i = 0; i < nameSize; ++i) name[i] = i < current->nameLength ? 'n' : '\0';
            return current->Call("get", "named " + std::to_string(index));
        };
        contexts.GetReturnVal = [](void*, int index, QSC_RPC_VARIANT* value) {
            value->vt = QSC_VT_BLOB;
            return current->Call("get", "return " + std::to_string(index));
        };
        variants.VariantInit = [](QSC_RPC_VARIANT* value) {
            *value = {};
            return current->Call("init", {});
        };
        variants.VariantClear = [](QSC_RPC_VARIANT*) { return current->Call("clear", {}); };
        variants.VariantFromChar = From<Char, char>;
        variants.VariantFromShort = From<Short, short>;
        variants.VariantFromUShort = From<UShort, unsigned short>;
        variants.VariantFromInt32 = From<Int32, int32_t>;
        variants.VariantFromUInt32 = From<UInt32, uint32_t>;
        variants.VariantFromInt64 = From<Int64, int64_t>;
        variants.VariantFromUInt64 = From<UInt64, uint64_t>;
        variants.VariantFromFloat = From<Float, float>;
        variants.VariantFromDouble = From<Double, double>;
        variants.VariantFromString = From<String, const char*>;
        variants.VariantFromBlob = From<Blob, const QSC_RPC_BLOB*>;
    }
    ~Tables() { current = nullptr; }

    bool Is(const void* hContext) const { return hContext == this; }

    QSCRPC_ChannelContextInterface contexts{};
    QSCRPC_VariantInterface variants{};
    Texts calls;
    Bool initResult = TRUE, fromResult = TRUE, result = TRUE;  // of VariantInit, VariantFrom..., words of the context
    int count = 3;
    int nameLength = 4;

private:
    enum Kind : uint16_t { Char = 1, Short, UShort, Int32, UInt32, Int64, UInt64, Float, Double, String, Blob };

    template <Kind kind, typename T>
    static Bool From(QSC_RPC_VARIANT* variant, T value) {
        variant->vt = kind;
        if constexpr (std::is_same_v<T, const QSC_RPC_BLOB*>) {
            variant->blob = *value;
        } else {
            std::memcpy(&variant->uint64Val, &value, sizeof value);
        }
        return current->Call("from", Text(*variant));
    }

    static std::string Text(const QSC_RPC_VARIANT& v) {
        switch (static_cast<Kind>(v.vt)) {
            case Char:
                return std::string("char ") + v.charVal;
            case Short:
                return "short " + std::to_string(v.shortVal);
            case UShort:
                return "ushort " + std::to_string(v.ushortVal);
            case Int32:
                return "int32 " + std::to_string(v.int32Val);
            case UInt32:
                return "uint32 " + std::to_string(v.uint32Val);
            case Int64:
                return "int64 " + std::to_string(v.int64Val);
            case UInt64:
                return "uint64 " + std::to_string(v.uint64Val);
            case Float:
                return "float " + std::to_string(v.floatVal);
            case Double:
                return "double " + std::to_string(v.doubleVal);
            case String:
                return std::string("string ") + v.str;
            case Blob:
                return "blob " + std::string(static_cast<const char*>(v.blob.data), v.blob.size);
        }
        return "empty";
    }

    Bool Call(const char* word, const std::string& arguments) {
        calls.push_back(arguments.empty() ? word : std::string(word) + " " + arguments);
        if (word == std::string_view("init")) return initResult;
        if (word == std::string_view("from")) return fromResult;
        return word == std::string_view("clear") ? TRUE : result;
    }

    inline static Tables* current = nullptr;
};

const QSC_RPC_BLOB kBlob{3, "a\0b"};

// One row for each type: what the three members that take it do with it.
struct TypeCase {
    std::string text;
    std::function<bool(Command&)> add, addNamed, appendReturn;
};

template <typename T>
TypeCase Type(const std::string& text, T value) {
    return {text, [value](Command& c) { return c.AddParam(value); },
            [value](Command& c) { return c.AddNamedParam(value, "key"); },
            [value](Command& c) { return c.AppendReturnVal(value); }};
}

std::vector<TypeCase> TypeCases() {
    return {
        Type<char>("char x", 'x'),
        Type<short>("short -32768", -32768),
        Type<unsigned short>("ushort 65535", 65535),
        Type<int32_t>("int32 -2147483648", INT32_MIN),
        Type<uint32_t>("uint32 4294967295", UINT32_MAX),
        Type<int64>("int64 -9223372036854775808", INT64_MIN),
        Type<uint64>("uint64 18446744073709551615", UINT64_MAX),
        Type<float>("float 1.500000", 1.5F),
        Type<double>("double -0.250000", -0.25),
        Type<const char*>("string text", "text"),
        Type<const QSC_RPC_BLOB*>(std::string("blob a\0b", 8), &kBlob),
    };
}

class QSCServiceCommandTest : public testing::Test {
protected:
    Texts TakeCalls() { return std::exchange(tables.calls, {}); }

    LogCapture log{kLogDebug};
    Tables tables;
    Command command{&tables.contexts, &tables.variants, &tables};
};

TEST_F(QSCServiceCommandTest, EachTypeHasItsWordInEachFamily) {
    for (const TypeCase& c : TypeCases()) {
        const std::string& text = c.text;
        SCOPED_TRACE(text);
        EXPECT_TRUE(c.add(command));
        EXPECT_EQ(TakeCalls(), (Texts{"init", "from " + text, "append " + text, "clear"}));
        EXPECT_TRUE(c.addNamed(command));
        EXPECT_EQ(TakeCalls(), (Texts{"init", "from " + text, "append key=" + text, "clear"}));
        EXPECT_TRUE(c.appendReturn(command));
        EXPECT_EQ(TakeCalls(), (Texts{"init", "from " + text, "append return " + text, "clear"}));
    }
    EXPECT_TRUE(log.Lines().empty());
}

struct FailureCase {
    Bool initResult, fromResult, result;
    const char* paramLine;   // of AddParam and AddNamedParam; null: success
    const char* returnLine;  // of AppendReturnVal
    size_t calls;            // of the tables
};

TEST_F(QSCServiceCommandTest, FailuresAreToldUnderTheMembersSignatureAndClearWhatWasStored) {
    const char* const init = "Failed to initialize variant.\n";
    const char* const create = "Failed to create variant.\n";
    const FailureCase failures[] = {
        {FALSE, TRUE, TRUE, init, init, 1},
        {TRUE, FALSE, TRUE, create, create, 2},
        {TRUE, TRUE, FALSE, "Failed to append parameter.\n", "Failed to append return value.\n", 4},
        {TRUE, TRUE, 2, "Failed to append parameter.\n", nullptr, 4},
        {2, 2, TRUE, nullptr, nullptr, 4},
    };
    for (const FailureCase& f : failures) {
        tables.initResult = f.initResult;
        tables.fromResult = f.fromResult;
        tables.result = f.result;
        for (const TypeCase& c : TypeCases()) {
            const std::pair<const std::function<bool(Command&)>*, const char*> members[] = {
                {&c.add, f.paramLine}, {&c.addNamed, f.paramLine}, {&c.appendReturn, f.returnLine}};
            for (size_t i = 0; i < std::size(members); ++i) {
                const auto& [member, line] = members[i];
                log.Clear();
                EXPECT_EQ((*member)(command), line == nullptr) << c.text;
                EXPECT_EQ(TakeCalls().size(), f.calls) << c.text;
                const std::vector<LogCapture::Line> lines = log.Lines();
                ASSERT_EQ(lines.size(), line ? 1u : 0u);
                if (!line) continue;
                EXPECT_EQ(lines[0].text, line);
                const char* const names[] = {"::AddParam(", "::AddNamedParam(", "::AppendReturnVal("};
                EXPECT_NE(lines[0].function.find(std::string("QSCServiceCommand") + names[i]), std::string::npos);
            }
        }
    }
}

TEST_F(QSCServiceCommandTest, TheSignatureTellsTheMember) {
    tables.initResult = FALSE;
    command.AddParam(static_cast<short unsigned int>(1));
#if defined(__clang__)
    EXPECT_EQ(log.Lines().at(0).function, "bool QSCServiceCommand::AddParam(unsigned short)");
#else
    EXPECT_EQ(log.Lines().at(0).function, "bool QSCServiceCommand::AddParam(short unsigned int)");
#endif
}

TEST_F(QSCServiceCommandTest, PassesVariantsAndNumbersThrough) {
    QSC_RPC_VARIANT value{};
    for (const Bool result : {TRUE, FALSE, Bool{2}}) {
        tables.result = result;
        EXPECT_EQ(command.AddParam(&value), result == TRUE);
        EXPECT_EQ(command.AddNamedParam(&value, "key"), result == TRUE);
        EXPECT_EQ(command.AppendReturnVal(&value), result != FALSE);
        EXPECT_EQ(command.SetCommand(7), result != FALSE);
        EXPECT_EQ(TakeCalls(), (Texts{"append empty", "append key=empty", "append return empty", "command 7"}));
    }
    EXPECT_EQ(command.GetCommand(), 0xFFFFFFF0u);
    EXPECT_EQ(command.GetParamCount(), 3);
    EXPECT_EQ(command.GetReturnValCount(), 3);
    EXPECT_EQ(command.GetContext(), &tables);
}

TEST_F(QSCServiceCommandTest, ReadsInRangeAndLeavesTheRestToTheService) {
    QSC_RPC_VARIANT value{};
    std::string name;
    EXPECT_TRUE(command.GetParam(2, &value));
    EXPECT_EQ(value.vt, QSC_VT_UI4);
    EXPECT_TRUE(command.GetNamedParam(0, name, &value));
    EXPECT_EQ(name, "nnnn");
    EXPECT_EQ(value.vt, QSC_VT_UI8);
    EXPECT_TRUE(command.GetReturnVal(1, &value));
    EXPECT_EQ(value.vt, QSC_VT_BLOB);
    EXPECT_EQ(TakeCalls(), (Texts{"get param 2", "get named 0", "get return 1"}));

    tables.result = FALSE;
    name = "kept";
    log.Clear();
    EXPECT_FALSE(command.GetParam(-1, &value));
    EXPECT_FALSE(command.GetNamedParam(-2, name, &value));
    EXPECT_FALSE(command.GetReturnVal(-3, &value));
    EXPECT_EQ(TakeCalls(), (Texts{"get param -1", "get named -2", "get return -3"}));
    EXPECT_EQ(name, "kept");
    EXPECT_TRUE(log.Has(kLogDebug, "Failed to get parameter at index [-1].\n"));
    EXPECT_TRUE(log.Has(kLogDebug, "Failed to get param at index [-2].\n"));
    EXPECT_TRUE(log.Has(kLogDebug, "Failed to get return value at index [-3].\n"));

    log.Clear();
    EXPECT_FALSE(command.GetParam(3, &value));
    EXPECT_FALSE(command.GetNamedParam(3, name, &value));
    EXPECT_FALSE(command.GetReturnVal(3, &value));
    EXPECT_EQ(TakeCalls(), Texts{});
    EXPECT_EQ(log.Count("Index [3] out of range [3].\n"), 3u);
}

TEST_F(QSCServiceCommandTest, ALongNameIsCutToItsBuffer) {
    QSC_RPC_VARIANT value{};
    std::string name;
    for (const int length : {0, 255, 256, 1000}) {
        tables.nameLength = length;
        EXPECT_TRUE(command.GetNamedParam(0, name, &value));
        EXPECT_EQ(name, std::string(static_cast<size_t>(std::min(length, 255)), 'n'));
    }
}

}  // namespace
