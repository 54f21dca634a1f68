#include "rpc/QSCServiceCommand.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <string>
#include <type_traits>
#include <typeinfo>
#include <utility>
#include <vector>

#include "tests/support/LogCapture.h"

namespace {

using Texts = std::vector<std::string>;

class Command : public QSCServiceCommand {
public:
    using QSCServiceCommand::QSCServiceCommand;
};

// A value with its type, which tells the overloads apart.
template <typename T>
std::string Describe(T value) {
    if constexpr (std::is_same_v<T, const char*>) {
        return value;
    } else if constexpr (std::is_same_v<T, const QSC_RPC_BLOB*>) {
        return "blob " + std::string(static_cast<const char*>(value->data), value->size);
    } else {
        return std::string(typeid(T).name()) + " " + std::to_string(value);
    }
}

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
        variants.VariantFromChar = From<char>;
        variants.VariantFromShort = From<short>;
        variants.VariantFromUShort = From<unsigned short>;
        variants.VariantFromInt32 = From<int32_t>;
        variants.VariantFromUInt32 = From<uint32_t>;
        variants.VariantFromInt64 = From<int64_t>;
        variants.VariantFromUInt64 = From<uint64_t>;
        variants.VariantFromFloat = From<float>;
        variants.VariantFromDouble = From<double>;
        variants.VariantFromString = From<const char*>;
        variants.VariantFromBlob = From<const QSC_RPC_BLOB*>;
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
    // The variant says which of the values it was made from.
    template <typename T>
    static Bool From(QSC_RPC_VARIANT* variant, T value) {
        current->values.push_back(Describe(value));
        variant->vt = static_cast<uint16_t>(current->values.size());
        return current->Call("from", current->values.back());
    }

    static std::string Text(const QSC_RPC_VARIANT& v) {
        return v.vt == 0 ? "empty" : current->values.at(static_cast<size_t>(v.vt - 1));
    }

    Bool Call(const char* word, const std::string& arguments) {
        calls.push_back(arguments.empty() ? word : std::string(word) + " " + arguments);
        if (word == std::string_view("init")) return initResult;
        if (word == std::string_view("from")) return fromResult;
        return word == std::string_view("clear") ? TRUE : result;
    }

    Texts values;

    inline static Tables* current = nullptr;
};

const QSC_RPC_BLOB kBlob{3, "a\0b"};

// What the three members that take a type do with it.
struct TypeCase {
    std::string text;
    std::function<bool(Command&)> members[3];
};

template <typename T>
TypeCase Type(T value) {
    return {Describe(value),
            {[value](Command& c) { return c.AddParam(value); },
             [value](Command& c) { return c.AddNamedParam(value, "key"); },
             [value](Command& c) { return c.AppendReturnVal(value); }}};
}

std::vector<TypeCase> TypeCases() {
    return {Type<char>('x'),
            Type<short>(-32768),
            Type<unsigned short>(65535),
            Type<int32_t>(INT32_MIN),
            Type<uint32_t>(UINT32_MAX),
            Type<int64>(INT64_MIN),
            Type<uint64>(UINT64_MAX),
            Type<float>(1.5F),
            Type<double>(-0.25),
            Type<const char*>("text"),
            Type<const QSC_RPC_BLOB*>(&kBlob)};
}

class QSCServiceCommandTest : public testing::Test {
protected:
    Texts TakeCalls() { return std::exchange(tables.calls, {}); }

    LogCapture log{kLogDebug};
    Tables tables;
    Command command{&tables.contexts, &tables.variants, &tables};
};

struct MemberCase {
    Bool initResult, fromResult, result;
    size_t calls;            // of the tables
    const char* paramLine;   // of AddParam and AddNamedParam; null: success
    const char* returnLine;  // of AppendReturnVal
};

TEST_F(QSCServiceCommandTest, EachTypeHasItsWordInEachFamilyAndFailuresClearWhatWasStored) {
    const char* const init = "Failed to initialize variant.\n";
    const char* const create = "Failed to create variant.\n";
    const MemberCase cases[] = {
        {2, 2, TRUE, 4, nullptr, nullptr},
        {FALSE, TRUE, TRUE, 1, init, init},
        {TRUE, FALSE, TRUE, 2, create, create},
        {TRUE, TRUE, FALSE, 4, "Failed to append parameter.\n", "Failed to append return value.\n"},
        {TRUE, TRUE, 2, 4, "Failed to append parameter.\n", nullptr},
    };
    const std::string prefixes[] = {"", "key=", "return "};
    const char* const signatures[] = {"Command::AddParam(", "Command::AddNamedParam(", "Command::AppendReturnVal("};
    for (const MemberCase& c : cases) {
        tables.initResult = c.initResult;
        tables.fromResult = c.fromResult;
        tables.result = c.result;
        for (const TypeCase& type : TypeCases()) {
            for (size_t i = 0; i < 3; ++i) {
                SCOPED_TRACE(prefixes[i] + type.text);
                const char* const line = i < 2 ? c.paramLine : c.returnLine;
                log.Clear();
                EXPECT_EQ(type.members[i](command), line == nullptr);
                Texts calls = {"init", "from " + type.text, "append " + prefixes[i] + type.text, "clear"};
                calls.resize(c.calls);
                EXPECT_EQ(TakeCalls(), calls);
                EXPECT_EQ(log.Texts(kLogDebug), (line ? Texts{line} : Texts{}));
                for (const LogCapture::Line& logged : log.Lines()) {
                    EXPECT_NE(logged.function.find(signatures[i]), std::string::npos);
                }
            }
        }
    }
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
    const auto read = [&](int index) {
        log.Clear();
        return std::vector<bool>{command.GetParam(index, &value), command.GetNamedParam(index, name, &value),
                                 command.GetReturnVal(index, &value)};
    };
    EXPECT_EQ(read(2), std::vector<bool>(3, true));
    EXPECT_EQ(value.vt, QSC_VT_BLOB);
    EXPECT_EQ(name, "nnnn");
    EXPECT_EQ(TakeCalls(), (Texts{"get param 2", "get named 2", "get return 2"}));
    tables.result = FALSE;
    tables.nameLength = 1;
    EXPECT_EQ(read(-1), std::vector<bool>(3, false));
    EXPECT_EQ(name, "nnnn");
    EXPECT_EQ(TakeCalls(), (Texts{"get param -1", "get named -1", "get return -1"}));
    EXPECT_EQ(log.Texts(kLogDebug),
              (Texts{"Failed to get parameter at index [-1].\n", "Failed to get param at index [-1].\n", "Enter\n",
                     "Failed to get return value at index [-1].\n", "Exit\n"}));
    EXPECT_EQ(read(3), std::vector<bool>(3, false));
    EXPECT_EQ(TakeCalls(), Texts{});
    EXPECT_EQ(log.Count("Index [3] out of range [3].\n"), 3u);

    tables.result = TRUE;
    for (const int length : {0, 255, 256}) {
        tables.nameLength = length;
        read(0);
        EXPECT_EQ(name, std::string(static_cast<size_t>(std::min(length, 255)), 'n')) << "cut to its buffer";
    }
}

}  // namespace
