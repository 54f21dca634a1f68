// The three families differ in the append operation, in what counts as its success and in the text of its failure; the
// members of a family in the type and the variant operation. AppendValue is what they have in common. Each member
// passes its own signature, under which the lines are logged.
#include "rpc/QSCServiceCommand.h"

#include "logging/Log.h"

namespace {

using Variants = QSCRPC_VariantInterface;

}  // namespace

QSCServiceCommand::~QSCServiceCommand() = default;

bool QSCServiceCommand::SetCommand(uint32_t command) {
    return m_channelContext->SetCommand(m_hContext, command) != FALSE;
}

uint32_t QSCServiceCommand::GetCommand() {
    return m_channelContext->GetCommand(m_hContext);
}

int QSCServiceCommand::GetParamCount() {
    return m_channelContext->GetParamCount(m_hContext);
}

int QSCServiceCommand::GetReturnValCount() {
    return m_channelContext->GetReturnValCount(m_hContext);
}

bool QSCServiceCommand::AddParam(QSC_RPC_VARIANT* value) {
    return m_channelContext->AppendParam(m_hContext, value) == TRUE;
}

bool QSCServiceCommand::AddNamedParam(QSC_RPC_VARIANT* value, const std::string& name) {
    return m_channelContext->AppendNamedParam(m_hContext, name.c_str(), value) == TRUE;
}

bool QSCServiceCommand::AppendReturnVal(QSC_RPC_VARIANT* value) {
    return m_channelContext->AppendReturnVal(m_hContext, value) != FALSE;
}

bool QSCServiceCommand::GetParam(int index, QSC_RPC_VARIANT* value) {
    const int count = GetParamCount();
    if (index >= count) {
        LOG(Debug, "Index [%d] out of range [%d].\n", index, count);
        return false;
    }
    if (!m_channelContext->GetParam(m_hContext, index, value)) {
        LOG(Debug, "Failed to get parameter at index [%d].\n", index);
        return false;
    }
    return true;
}

bool QSCServiceCommand::GetNamedParam(int index, std::string& name, QSC_RPC_VARIANT* value) {
    constexpr int kNameSize = 256;
    const int count = GetParamCount();
    if (index >= count) {
        LOG(Debug, "Index [%d] out of range [%d].\n", index, count);
        return false;
    }
    char text[kNameSize] = "";
    if (!m_channelContext->GetNamedParam(m_hContext, index, text, kNameSize, value)) {
        LOG(Debug, "Failed to get param at index [%d].\n", index);
        return false;
    }
    text[kNameSize - 1] = '\0';
    name = text;
    return true;
}

bool QSCServiceCommand::GetReturnVal(int index, QSC_RPC_VARIANT* value) {
    FUNCTION_TRACE(Debug, "");
    const int count = GetReturnValCount();
    if (index >= count) {
        LOG(Debug, "Index [%d] out of range [%d].\n", index, count);
        return false;
    }
    if (!m_channelContext->GetReturnVal(m_hContext, index, value)) {
        LOG(Debug, "Failed to get return value at index [%d].\n", index);
        return false;
    }
    return true;
}

template <typename T, typename Append>
bool QSCServiceCommand::AppendValue(const char* signature, VariantFrom<T> from, std::type_identity_t<T> value,
                                    Append append, const char* failure) {
    QSC_RPC_VARIANT variant;
    if (!m_variant->VariantInit(&variant)) {
        LOG_AS(signature, Debug, "Failed to initialize variant.\n");
        return false;
    }
    if (!(m_variant->*from)(&variant, value)) {
        LOG_AS(signature, Debug, "Failed to create variant.\n");
        return false;
    }
    const bool appended = append(&variant);
    if (!appended) LOG_AS(signature, Debug, "%s", failure);
    m_variant->VariantClear(&variant);
    return appended;
}

template <typename T>
bool QSCServiceCommand::AddParamValue(const char* signature, VariantFrom<T> from, std::type_identity_t<T> value) {
    return AppendValue(
        signature, from, value, [this](QSC_RPC_VARIANT* variant) { return AddParam(variant); },
        "Failed to append parameter.\n");
}

template <typename T>
bool QSCServiceCommand::AddNamedParamValue(const char* signature, VariantFrom<T> from, std::type_identity_t<T> value,
                                           const std::string& name) {
    return AppendValue(
        signature, from, value, [&](QSC_RPC_VARIANT* variant) { return AddNamedParam(variant, name); },
        "Failed to append parameter.\n");
}

template <typename T>
bool QSCServiceCommand::AppendReturnValue(const char* signature, VariantFrom<T> from, std::type_identity_t<T> value) {
    return AppendValue(
        signature, from, value, [this](QSC_RPC_VARIANT* variant) { return AppendReturnVal(variant); },
        "Failed to append return value.\n");
}

bool QSCServiceCommand::AddParam(char value) {
    return AddParamValue(__PRETTY_FUNCTION__, &Variants::VariantFromChar, value);
}

bool QSCServiceCommand::AddParam(short int value) {
    return AddParamValue(__PRETTY_FUNCTION__, &Variants::VariantFromShort, value);
}

bool QSCServiceCommand::AddParam(short unsigned int value) {
    return AddParamValue(__PRETTY_FUNCTION__, &Variants::VariantFromUShort, value);
}

bool QSCServiceCommand::AddParam(int32_t value) {
    return AddParamValue(__PRETTY_FUNCTION__, &Variants::VariantFromInt32, value);
}

bool QSCServiceCommand::AddParam(uint32_t value) {
    return AddParamValue(__PRETTY_FUNCTION__, &Variants::VariantFromUInt32, value);
}

bool QSCServiceCommand::AddParam(int64 value) {
    return AddParamValue(__PRETTY_FUNCTION__, &Variants::VariantFromInt64, value);
}

bool QSCServiceCommand::AddParam(uint64 value) {
    return AddParamValue(__PRETTY_FUNCTION__, &Variants::VariantFromUInt64, value);
}

bool QSCServiceCommand::AddParam(float value) {
    return AddParamValue(__PRETTY_FUNCTION__, &Variants::VariantFromFloat, value);
}

bool QSCServiceCommand::AddParam(double value) {
    return AddParamValue(__PRETTY_FUNCTION__, &Variants::VariantFromDouble, value);
}

bool QSCServiceCommand::AddParam(const char* value) {
    return AddParamValue(__PRETTY_FUNCTION__, &Variants::VariantFromString, value);
}

bool QSCServiceCommand::AddParam(const QSC_RPC_BLOB* value) {
    return AddParamValue(__PRETTY_FUNCTION__, &Variants::VariantFromBlob, value);
}

bool QSCServiceCommand::AddNamedParam(char value, const std::string& name) {
    return AddNamedParamValue(__PRETTY_FUNCTION__, &Variants::VariantFromChar, value, name);
}

bool QSCServiceCommand::AddNamedParam(short int value, const std::string& name) {
    return AddNamedParamValue(__PRETTY_FUNCTION__, &Variants::VariantFromShort, value, name);
}

bool QSCServiceCommand::AddNamedParam(short unsigned int value, const std::string& name) {
    return AddNamedParamValue(__PRETTY_FUNCTION__, &Variants::VariantFromUShort, value, name);
}

bool QSCServiceCommand::AddNamedParam(int32_t value, const std::string& name) {
    return AddNamedParamValue(__PRETTY_FUNCTION__, &Variants::VariantFromInt32, value, name);
}

bool QSCServiceCommand::AddNamedParam(uint32_t value, const std::string& name) {
    return AddNamedParamValue(__PRETTY_FUNCTION__, &Variants::VariantFromUInt32, value, name);
}

bool QSCServiceCommand::AddNamedParam(int64 value, const std::string& name) {
    return AddNamedParamValue(__PRETTY_FUNCTION__, &Variants::VariantFromInt64, value, name);
}

bool QSCServiceCommand::AddNamedParam(uint64 value, const std::string& name) {
    return AddNamedParamValue(__PRETTY_FUNCTION__, &Variants::VariantFromUInt64, value, name);
}

bool QSCServiceCommand::AddNamedParam(float value, const std::string& name) {
    return AddNamedParamValue(__PRETTY_FUNCTION__, &Variants::VariantFromFloat, value, name);
}

bool QSCServiceCommand::AddNamedParam(double value, const std::string& name) {
    return AddNamedParamValue(__PRETTY_FUNCTION__, &Variants::VariantFromDouble, value, name);
}

bool QSCServiceCommand::AddNamedParam(const char* value, const std::string& name) {
    return AddNamedParamValue(__PRETTY_FUNCTION__, &Variants::VariantFromString, value, name);
}

bool QSCServiceCommand::AddNamedParam(const QSC_RPC_BLOB* value, const std::string& name) {
    return AddNamedParamValue(__PRETTY_FUNCTION__, &Variants::VariantFromBlob, value, name);
}

bool QSCServiceCommand::AppendReturnVal(char value) {
    return AppendReturnValue(__PRETTY_FUNCTION__, &Variants::VariantFromChar, value);
}

bool QSCServiceCommand::AppendReturnVal(short int value) {
    return AppendReturnValue(__PRETTY_FUNCTION__, &Variants::VariantFromShort, value);
}

bool QSCServiceCommand::AppendReturnVal(short unsigned int value) {
    return AppendReturnValue(__PRETTY_FUNCTION__, &Variants::VariantFromUShort, value);
}

bool QSCServiceCommand::AppendReturnVal(int32_t value) {
    return AppendReturnValue(__PRETTY_FUNCTION__, &Variants::VariantFromInt32, value);
}

bool QSCServiceCommand::AppendReturnVal(uint32_t value) {
    return AppendReturnValue(__PRETTY_FUNCTION__, &Variants::VariantFromUInt32, value);
}

bool QSCServiceCommand::AppendReturnVal(int64 value) {
    return AppendReturnValue(__PRETTY_FUNCTION__, &Variants::VariantFromInt64, value);
}

bool QSCServiceCommand::AppendReturnVal(uint64 value) {
    return AppendReturnValue(__PRETTY_FUNCTION__, &Variants::VariantFromUInt64, value);
}

bool QSCServiceCommand::AppendReturnVal(float value) {
    return AppendReturnValue(__PRETTY_FUNCTION__, &Variants::VariantFromFloat, value);
}

bool QSCServiceCommand::AppendReturnVal(double value) {
    return AppendReturnValue(__PRETTY_FUNCTION__, &Variants::VariantFromDouble, value);
}

bool QSCServiceCommand::AppendReturnVal(const char* value) {
    return AppendReturnValue(__PRETTY_FUNCTION__, &Variants::VariantFromString, value);
}

bool QSCServiceCommand::AppendReturnVal(const QSC_RPC_BLOB* value) {
    return AppendReturnValue(__PRETTY_FUNCTION__, &Variants::VariantFromBlob, value);
}
