// The service as nothing but its tables: which versions it has, what its words answer, and what was called. A test
// fires callbacks itself, through the sinks that it finds here. One at a time; its tables are process-wide.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "rpc/QSCServiceTables.h"

class TableService {
public:
    using Versions = std::vector<int>;

    TableService() {
        current = this;
        channel.v1 = {[] { current->OnPoll(); },
                      Register,
                      Unregister,
                      [] { return current->Record("Connect"); },
                      [] { return current->Record("Disconnect"); },
                      [] { return current->connection; }};
        channel.SwitchToStreamData = [](const char*, void*, int*) { return FALSE; };
        channel.GetSessionType = [] { return current->sessionType; };
        channel.v3.Poll = [](uint32_t ms) {
            current->pollSlices.push_back(ms);
            current->OnPoll();
        };
        object.CreateChannelObject = CreateObject;
        object.DestroyChannelObject = [](void*) { return current->Record("DestroyObject"); };
        object.GetObjectState = [](void* hObject) { return current->objectStates[hObject]; };
        object.CreateContext = [](void*, void** hContext) {
            *hContext = current;
            return TRUE;
        };
        object.Invoke = [](void*, void*, const QSCRPC_ContextNotifySink* sink, void*) {
            current->contextSink = *sink;
            return TRUE;
        };
        object.GetObjectOptions = [](void*, uint32_t*) { return FALSE; };
        object.CreateContextEx = [](void*, uint32_t, void**) { return FALSE; };
        context.GetId = [](void*) { return uint32_t{42}; };
        context.SetOption = [](void*, uint32_t, const QSC_RPC_VARIANT*) { return TRUE; };
        variant.VariantInit = variant.VariantClear = [](QSC_RPC_VARIANT*) { return TRUE; };
        variant.VariantFromUInt32 = [](QSC_RPC_VARIANT*, uint32_t) { return TRUE; };
    }
    ~TableService() { current = nullptr; }
    TableService(const TableService&) = delete;
    TableService& operator=(const TableService&) = delete;

    QSC_SERVICE_QUERY_INTERFACE Query() const { return {0, QueryInterface}; }

    // The versions that it has, and how many words each fills if not all.
    std::set<int> offered{0x0B, 0x12, 0x08, 0x00, 0x0E, 0x19};
    std::map<int, size_t> words{{0x06, 10}, {0x10, 12}, {0x0A, 11}, {0x02, 10}};
    Versions asked;

    QSCService_ChannelInterface channel{};
    QSCRPC_ChannelObjectInterface object{};
    QSCRPC_ChannelContextInterface context{};
    QSCRPC_VariantInterface variant{};

    QSCService_ConnectionState connection = QSC_CONNECTION_DISCONNECTED;
    QSCService_SessionType sessionType = QSC_SESSION_PCOIP;
    std::map<void*, QSCRPC_ObjectState> objectStates;

    std::vector<std::string> calls;  // names of operations, "CreateObject <name>" for those
    const QSCService_ChannelNotifySink* channelSink = nullptr;
    void* sinkContext = nullptr;
    std::map<std::string, const QSCRPC_ObjectNotifySink*> objectSinks;
    QSCRPC_ContextNotifySink contextSink{};

    int polls = 0;
    std::function<void()> onPoll;  // runs inside each poll
    std::vector<uint32_t> pollSlices;

private:
    static Bool QueryInterface(const QSC_INTERFACE_ID* id, void* table) {
        const int version = id->bytes[4];
        const QSC_INTERFACE_ID expected = QSC_MakeInterfaceId(id->bytes[4]);
        EXPECT_EQ(std::memcmp(id, &expected, 16), 0);
        current->asked.push_back(version);
        if (!current->offered.contains(version)) return FALSE;
        if (version == 0x0B || version == 0x10 || version == 0x06)
            return current->Fill(version, current->channel, table);
        if (version == 0x12 || version == 0x0F || version == 0x0A || version == 0x02) {
            return current->Fill(version, current->object, table);
        }
        if (version == 0x08 || version == 0x03) return current->Fill(version, current->context, table);
        if (version == 0x00) return current->Fill(version, current->variant, table);
        return 2;  // any other value than 0 is success too
    }

    template <typename Table>
    Bool Fill(int version, const Table& from, void* to) {
        const auto limit = words.find(version);
        std::memcpy(to, &from, limit == words.end() ? sizeof from : limit->second * sizeof(void*));
        return TRUE;
    }

    static Bool Register(const QSCService_ChannelNotifySink* sink, void* sinkContext, uint32_t* cookie) {
        current->channelSink = sink;
        current->sinkContext = sinkContext;
        *cookie = 7;
        return current->Record("Register");
    }

    static Bool Unregister(uint32_t cookie) {
        EXPECT_EQ(cookie, 7u);
        return current->Record("Unregister");
    }

    static Bool CreateObject(const char* name, const QSCRPC_ObjectNotifySink* sink, void*, uint32_t, void** hObject) {
        *hObject = &current->objectSinks[name];
        current->objectSinks[name] = sink;
        return current->Record(std::string("CreateObject ") + name);
    }

    void OnPoll() {
        ++polls;
        if (onPoll) onPoll();
    }

    Bool Record(const std::string& call) {
        calls.push_back(call);
        return TRUE;
    }

    inline static TableService* current = nullptr;
};
