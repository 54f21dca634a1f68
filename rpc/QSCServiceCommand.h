// Writes typed values into a message of the service and reads them out.
#pragma once

#include <cstdint>
#include <string>
#include <type_traits>

#include "rpc/QSCServiceTables.h"
#include "rpc/QSCServiceTypes.h"
#include "runtime/Types.h"

// A command wraps one message, a context of the service, for one operation on one thread. It owns nothing: the tables
// outlive it, and the context is made and destroyed elsewhere. The context keeps its own copy of what is appended.
//
// Failures are a false result and a line at DEBUG. What was appended before a failure stays in the message.
class QSCServiceCommand {
public:
    QSCServiceCommand(const QSCRPC_ChannelContextInterface* channelContext, const QSCRPC_VariantInterface* variant,
                      void* hContext)
        : m_channelContext(channelContext), m_variant(variant), m_hContext(hContext) {}
    QSCServiceCommand(const QSCServiceCommand&) = delete;
    QSCServiceCommand& operator=(const QSCServiceCommand&) = delete;
    virtual ~QSCServiceCommand() = 0;
    virtual void* GetContext() { return m_hContext; }

    bool SetCommand(uint32_t command);
    uint32_t GetCommand();
    int GetParamCount();
    int GetReturnValCount();

    // Append a value in the order of the calls. A blob and a string are read during the call only.
    bool AddParam(QSC_RPC_VARIANT* value);
    bool AddParam(char value);
    bool AddParam(short int value);
    bool AddParam(short unsigned int value);
    bool AddParam(int32_t value);
    bool AddParam(uint32_t value);
    bool AddParam(int64 value);
    bool AddParam(uint64 value);
    bool AddParam(float value);
    bool AddParam(double value);
    bool AddParam(const char* value);
    bool AddParam(const QSC_RPC_BLOB* value);

    bool AddNamedParam(QSC_RPC_VARIANT* value, const std::string& name);
    bool AddNamedParam(char value, const std::string& name);
    bool AddNamedParam(short int value, const std::string& name);
    bool AddNamedParam(short unsigned int value, const std::string& name);
    bool AddNamedParam(int32_t value, const std::string& name);
    bool AddNamedParam(uint32_t value, const std::string& name);
    bool AddNamedParam(int64 value, const std::string& name);
    bool AddNamedParam(uint64 value, const std::string& name);
    bool AddNamedParam(float value, const std::string& name);
    bool AddNamedParam(double value, const std::string& name);
    bool AddNamedParam(const char* value, const std::string& name);
    bool AddNamedParam(const QSC_RPC_BLOB* value, const std::string& name);

    bool AppendReturnVal(QSC_RPC_VARIANT* value);
    bool AppendReturnVal(char value);
    bool AppendReturnVal(short int value);
    bool AppendReturnVal(short unsigned int value);
    bool AppendReturnVal(int32_t value);
    bool AppendReturnVal(uint32_t value);
    bool AppendReturnVal(int64 value);
    bool AppendReturnVal(uint64 value);
    bool AppendReturnVal(float value);
    bool AppendReturnVal(double value);
    bool AppendReturnVal(const char* value);
    bool AppendReturnVal(const QSC_RPC_BLOB* value);

    // Read the value at index, counted from 0, into an initialised variant of the caller, who clears it; a string or
    // blob in it is valid until then. No value is converted: the caller looks at vt. An index beyond the end is refused
    // here, a negative one by the service. A name is cut to 255 characters.
    bool GetParam(int index, QSC_RPC_VARIANT* value);
    bool GetNamedParam(int index, std::string& name, QSC_RPC_VARIANT* value);
    bool GetReturnVal(int index, QSC_RPC_VARIANT* value);

protected:
    const QSCRPC_ChannelContextInterface* const m_channelContext;
    const QSCRPC_VariantInterface* const m_variant;
    void* const m_hContext;

private:
    template <typename T>
    using VariantFrom = Bool (*QSCRPC_VariantInterface::*)(QSC_RPC_VARIANT*, T);

    template <typename T, typename Append>
    bool AppendValue(const char* signature, VariantFrom<T> from, std::type_identity_t<T> value, Append append,
                     const char* failure);
    template <typename T>
    bool AddParamValue(const char* signature, VariantFrom<T> from, std::type_identity_t<T> value);
    template <typename T>
    bool AddNamedParamValue(const char* signature, VariantFrom<T> from, std::type_identity_t<T> value,
                            const std::string& name);
    template <typename T>
    bool AppendReturnValue(const char* signature, VariantFrom<T> from, std::type_identity_t<T> value);
};
