#include "standin/qscservice/ServiceTables.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <memory>
#include <utility>

#include "standin/qscservice/CallScript.h"
#include "standin/qscservice/LockGuard.h"
#include "standin/qscservice/MessageContext.h"
#include "standin/qscservice/Server.h"
#include "standin/qscservice/ServiceChannel.h"
#include "standin/qscservice/Variant.h"

namespace qscservice {

namespace {

using ChannelPtr = std::shared_ptr<ServiceChannel>;

// The channel table.

void Poll() {
    if (Refused(Op::Poll)) return;
    if (const ChannelPtr channel = ServiceChannel::Current()) channel->Poll();
}

void PollWait(uint32_t msWait) {
    if (Refused(Op::PollWait)) return;
    if (const ChannelPtr channel = ServiceChannel::Current()) channel->PollWait(msWait);
}

Bool RegisterChannelNotifySink(const QSCService_ChannelNotifySink* sink, void* context, uint32_t* cookie) {
    if (Refused(Op::RegisterChannelNotifySink)) return FALSE;
    const ChannelPtr channel = ServiceChannel::Current();
    return channel && channel->RegisterSink(sink, context, cookie);
}

Bool UnregisterChannelNotifySink(uint32_t cookie) {
    if (Refused(Op::UnregisterChannelNotifySink)) return FALSE;
    return ServiceChannel::UnregisterSink(cookie);
}

Bool Connect() {
    if (Refused(Op::Connect)) return FALSE;
    const ChannelPtr channel = ServiceChannel::Current();
    return channel && channel->Connect();
}

Bool Disconnect() {
    if (Refused(Op::Disconnect)) return FALSE;
    const ChannelPtr channel = ServiceChannel::Current();
    return channel && channel->Disconnect();
}

QSCService_ConnectionState GetConnectionState() {
    if (Refused(Op::GetConnectionState)) return QSC_CONNECTION_UNINITIALIZED;
    const ChannelPtr channel = ServiceChannel::Current();
    return channel ? channel->ConnectionState() : QSC_CONNECTION_UNINITIALIZED;
}

Bool SwitchToStreamData(const char* name, void* hChannel, int* fd) {
    if (Refused(Op::SwitchToStreamData)) return FALSE;
    return ServiceChannel::SwitchToStreamData(name, hChannel, fd);
}

QSCService_SessionType GetSessionType() {
    if (Refused(Op::GetSessionType)) return QSC_SESSION_NONE;
    const ChannelPtr channel = ServiceChannel::Current();
    return channel ? channel->SessionType() : QSC_SESSION_NONE;
}

// The channel object table.

Bool CreateChannelObject(const char* name, const QSCRPC_ObjectNotifySink* sink, void* context, uint32_t flags,
                         void** hObject) {
    if (Refused(Op::CreateChannelObject)) return FALSE;
    const ChannelPtr channel = ServiceChannel::Current();
    return channel && channel->CreateObject(name, sink, context, flags, hObject);
}

Bool DestroyChannelObject(void* hObject) {
    if (Refused(Op::DestroyChannelObject)) return FALSE;
    return ServiceChannel::DestroyObject(hObject);
}

QSCRPC_ObjectState GetObjectState(void* hObject) {
    if (Refused(Op::GetObjectState)) return QSC_OBJECT_UNINITIALIZED;
    return ServiceChannel::ObjectState(hObject);
}

Bool CreateContext(void* hObject, void** hContext) {
    if (Refused(Op::CreateContext)) return FALSE;
    return ServiceChannel::CreateContext(hObject, 0, hContext);
}

Bool CreateContextEx(void* hObject, uint32_t options, void** hContext) {
    if (Refused(Op::CreateContextEx)) return FALSE;
    return ServiceChannel::CreateContext(hObject, options, hContext);
}

// The move to Free decides between two callers with the same handle.
Bool DestroyContext(void* hContext) {
    if (Refused(Op::DestroyContext)) return FALSE;
    MessageContext* context = ContextTable::Find(hContext);
    if (!context || !context->Move(MessageContext::State::Own, MessageContext::State::Free)) return FALSE;
    ContextTable::Release(context);
    return TRUE;
}

Bool Invoke(void* hObject, void* hContext, const QSCRPC_ContextNotifySink* sink, void* context) {
    if (Refused(Op::Invoke)) return FALSE;
    return ServiceChannel::Invoke(hObject, hContext, sink, context);
}

Bool IsSideChannelAvailable(uint32_t type) {
    if (Refused(Op::IsSideChannelAvailable)) return FALSE;
    const ChannelPtr channel = ServiceChannel::Current();
    return channel && channel->IsSideChannelAvailable(type);
}

Bool RequestSideChannel(void* hObject, uint32_t type, const char*) {
    if (Refused(Op::RequestSideChannel)) return FALSE;
    return ServiceChannel::RequestSideChannel(hObject, type);
}

Bool GetObjectOptions(void* hObject, uint32_t* options) {
    if (Refused(Op::GetObjectOptions)) return FALSE;
    return ServiceChannel::ObjectOptions(hObject, options);
}

// The channel context table.

MessageContext* FindOwn(void* hContext) {
    MessageContext* context = ContextTable::Find(hContext);
    return context && context->GetState() == MessageContext::State::Own ? context : nullptr;
}

bool AppendTo(void* hContext, ItemRole role, std::string_view name, const QSC_RPC_VARIANT* variant) {
    MessageContext* context = ContextTable::Find(hContext);
    Value value;
    return context && variant && FromVariant(*variant, &value) && context->Append(role, name, value);
}

bool ReadFrom(void* hContext, ItemRole role, int index, Item* item) {
    const MessageContext* context = ContextTable::Find(hContext);
    return context && context->Get(role, index, item);
}

int CountOf(void* hContext, ItemRole role) {
    const MessageContext* context = ContextTable::Find(hContext);
    return context ? context->Count(role) : 0;
}

bool ReadVariant(void* hContext, ItemRole role, int index, QSC_RPC_VARIANT* variant) {
    Item item;
    if (!variant || !ReadFrom(hContext, role, index, &item)) return false;
    *variant = ToVariant(item.value);
    return true;
}

uint32_t GetId(void* hContext) {
    if (Refused(Op::GetId)) return 0;
    const MessageContext* context = ContextTable::Find(hContext);
    return context ? context->requestId : 0;
}

uint32_t GetCommand(void* hContext) {
    if (Refused(Op::GetCommand)) return 0;
    const MessageContext* context = ContextTable::Find(hContext);
    return context ? context->command : 0;
}

Bool SetCommand(void* hContext, uint32_t command) {
    if (Refused(Op::SetCommand)) return FALSE;
    MessageContext* context = FindOwn(hContext);
    if (!context) return FALSE;
    context->command = command;
    return TRUE;
}

int GetParamCount(void* hContext) {
    return Refused(Op::GetParamCount) ? 0 : CountOf(hContext, ItemRole::Param);
}

Bool AppendParam(void* hContext, const QSC_RPC_VARIANT* value) {
    if (Refused(Op::AppendParam)) return FALSE;
    return AppendTo(hContext, ItemRole::Param, {}, value);
}

Bool GetParam(void* hContext, int index, QSC_RPC_VARIANT* value) {
    if (Refused(Op::GetParam)) return FALSE;
    return ReadVariant(hContext, ItemRole::Param, index, value);
}

Bool AppendNamedParam(void* hContext, const char* name, const QSC_RPC_VARIANT* value) {
    if (Refused(Op::AppendNamedParam)) return FALSE;
    return name && AppendTo(hContext, ItemRole::NamedParam, name, value);
}

// A name that is too long for the buffer is cut, and always terminated.
Bool GetNamedParam(void* hContext, int index, char* name, int nameSize, QSC_RPC_VARIANT* value) {
    if (Refused(Op::GetNamedParam)) return FALSE;
    Item item;
    if (!name || nameSize < 1 || !value || !ReadFrom(hContext, ItemRole::NamedParam, index, &item)) return FALSE;
    name[item.name.copy(name, static_cast<size_t>(nameSize) - 1)] = '\0';
    *value = ToVariant(item.value);
    return TRUE;
}

int GetReturnValCount(void* hContext) {
    return Refused(Op::GetReturnValCount) ? 0 : CountOf(hContext, ItemRole::ReturnValue);
}

Bool AppendReturnVal(void* hContext, const QSC_RPC_VARIANT* value) {
    if (Refused(Op::AppendReturnVal)) return FALSE;
    return AppendTo(hContext, ItemRole::ReturnValue, {}, value);
}

Bool GetReturnVal(void* hContext, int index, QSC_RPC_VARIANT* value) {
    if (Refused(Op::GetReturnVal)) return FALSE;
    return ReadVariant(hContext, ItemRole::ReturnValue, index, value);
}

Bool SetOption(void* hContext, uint32_t option, const QSC_RPC_VARIANT* value) {
    if (Refused(Op::SetOption)) return FALSE;
    MessageContext* context = FindOwn(hContext);
    if (!context || option != QSC_CONTEXT_OPTION_POST || !value || value->vt != QSC_VT_UI4) return FALSE;
    context->post = value->uint32Val != 0;
    return TRUE;
}

// The tables, and the versions of them.

constexpr QSCService_ChannelInterface kChannelTable = {
    .unused0 = {},
    .v1 = {.Poll = Poll,
           .RegisterChannelNotifySink = RegisterChannelNotifySink,
           .UnregisterChannelNotifySink = UnregisterChannelNotifySink,
           .Connect = Connect,
           .Disconnect = Disconnect,
           .GetConnectionState = GetConnectionState},
    .unused9 = nullptr,
    .SwitchToStreamData = SwitchToStreamData,
    .GetSessionType = GetSessionType,
    .v3 = {.Poll = PollWait},
    .unused13 = {},
};

constexpr QSCService_ChannelInterface WithoutStreamData(QSCService_ChannelInterface table) {
    table.SwitchToStreamData = nullptr;
    return table;
}

constexpr QSCService_ChannelInterface kOldestChannelTable = WithoutStreamData(kChannelTable);

constexpr QSCRPC_ChannelObjectInterface kObjectTable = {
    .unused0 = nullptr,
    .CreateChannelObject = CreateChannelObject,
    .DestroyChannelObject = DestroyChannelObject,
    .GetObjectState = GetObjectState,
    .unused4 = nullptr,
    .CreateContext = CreateContext,
    .DestroyContext = DestroyContext,
    .Invoke = Invoke,
    .IsSideChannelAvailable = IsSideChannelAvailable,
    .RequestSideChannel = RequestSideChannel,
    .GetObjectOptions = GetObjectOptions,
    .CreateContextEx = CreateContextEx,
    .unused12 = nullptr,
};

constexpr QSCRPC_ChannelContextInterface kContextTable = {
    .unused0 = nullptr,
    .GetId = GetId,
    .GetCommand = GetCommand,
    .SetCommand = SetCommand,
    .unused4 = {},
    .GetParamCount = GetParamCount,
    .AppendParam = AppendParam,
    .GetParam = GetParam,
    .AppendNamedParam = AppendNamedParam,
    .GetNamedParam = GetNamedParam,
    .unused11 = {},
    .GetReturnValCount = GetReturnValCount,
    .AppendReturnVal = AppendReturnVal,
    .GetReturnVal = GetReturnVal,
    .unused16 = {},
    .SetOption = SetOption,
};

constexpr QSCRPC_StreamDataInterface kStreamDataTable = {};
constexpr QSCOverlay_ClientInterface kOverlayTable = {};

// One id: what it fills in is the first `size` bytes of the words, and nothing behind them.
struct Version {
    Table table;
    uint8_t id;
    const void* words;
    size_t size;
};

// Newest first in each table.
constexpr Version kVersions[] = {
    {Table::Channel, 0x0B, &kChannelTable, sizeof kChannelTable},
    {Table::Channel, 0x10, &kChannelTable, offsetof(QSCService_ChannelInterface, v3)},
    {Table::Channel, 0x06, &kOldestChannelTable, offsetof(QSCService_ChannelInterface, v3)},
    {Table::ChannelObject, 0x12, &kObjectTable, sizeof kObjectTable},
    {Table::ChannelObject, 0x0F, &kObjectTable, sizeof kObjectTable},
    {Table::ChannelObject, 0x0A, &kObjectTable, offsetof(QSCRPC_ChannelObjectInterface, CreateContextEx)},
    {Table::ChannelObject, 0x02, &kObjectTable, offsetof(QSCRPC_ChannelObjectInterface, GetObjectOptions)},
    {Table::ChannelContext, 0x08, &kContextTable, sizeof kContextTable},
    {Table::ChannelContext, 0x03, &kContextTable, sizeof kContextTable},
    {Table::Variant, 0x00, &kVariantTable, sizeof kVariantTable},
    {Table::StreamData, 0x0E, &kStreamDataTable, sizeof kStreamDataTable},
    {Table::StreamData, 0x0C, &kStreamDataTable, sizeof kStreamDataTable},
    {Table::Overlay, 0x19, &kOverlayTable, sizeof kOverlayTable},
    {Table::Overlay, 0x18, &kOverlayTable, sizeof kOverlayTable},
    {Table::Overlay, 0x16, &kOverlayTable, sizeof kOverlayTable},
    {Table::Overlay, 0x07, &kOverlayTable, sizeof kOverlayTable},
    {Table::Overlay, 0x05, &kOverlayTable, sizeof kOverlayTable},
    {Table::Server, kServerInterfaceVersion, &kServerTable, sizeof kServerTable},
};

using VersionSet = uint32_t;  // bit n: kVersions[n]
static_assert(std::size(kVersions) < 32);
constexpr VersionSet kAllVersions = (VersionSet{1} << std::size(kVersions)) - 1;

std::atomic<VersionSet> gOffered{kAllVersions};  // each query stands alone, so relaxed order is enough

template <class Predicate>
VersionSet Select(Predicate wanted) {
    VersionSet set = 0;
    for (size_t i = 0; i < std::size(kVersions); ++i) {
        if (wanted(kVersions[i])) set |= VersionSet{1} << i;
    }
    return set;
}

void Offer(Table table, VersionSet versions) {
    const VersionSet all = Select([table](const Version& version) { return version.table == table; });
    VersionSet offered = gOffered.load(std::memory_order_relaxed);
    while (!gOffered.compare_exchange_weak(offered, (offered & ~all) | (versions & all), std::memory_order_relaxed)) {
    }
}

Bool QueryInterface(const QSC_INTERFACE_ID* id, void* table) {
    if (Refused(Op::QueryInterface) || !id || !table) return FALSE;
    const VersionSet offered = gOffered.load(std::memory_order_relaxed);
    for (size_t i = 0; i < std::size(kVersions); ++i) {
        const QSC_INTERFACE_ID known = QSC_MakeInterfaceId(kVersions[i].id);
        if ((offered >> i & 1) == 0 || std::memcmp(id->bytes, known.bytes, sizeof known.bytes) != 0) continue;
        std::memcpy(table, kVersions[i].words, kVersions[i].size);
        return TRUE;
    }
    return FALSE;
}

using ErrorHandler = std::function<void(std::string_view)>;

struct ErrorOutlet {
    Mutex mutex;  // guards handler; not held while it runs
    std::shared_ptr<const ErrorHandler> handler GUARDED_BY(mutex);
};

ErrorOutlet& TheErrorOutlet() {
    static ErrorOutlet* outlet = new ErrorOutlet;
    return *outlet;
}

}  // namespace

QSC_SERVICE_QUERY_INTERFACE Query() {
    return {1, QueryInterface};
}

void OfferTable(Table table, const std::vector<uint8_t>& ids) {
    Offer(table, Select([&ids](const Version& version) {
              return std::find(ids.begin(), ids.end(), version.id) != ids.end();
          }));
}

void OfferNewest(Table table) {
    const Version* newest = std::find_if(std::begin(kVersions), std::end(kVersions),
                                         [table](const Version& v) { return v.table == table; });
    OfferTable(table, {newest->id});
}

void OfferOldest(Table table) {
    uint8_t oldest = 0;
    for (const Version& version : kVersions) {
        if (version.table == table) oldest = version.id;
    }
    OfferTable(table, {oldest});
}

void OfferAllTables() {
    gOffered.store(kAllVersions, std::memory_order_relaxed);
}

void SetErrorHandler(std::function<void(std::string_view)> handler) {
    auto shared = handler ? std::make_shared<const ErrorHandler>(std::move(handler)) : nullptr;
    ErrorOutlet& outlet = TheErrorOutlet();
    Lock lock(outlet.mutex);
    outlet.handler.swap(shared);
}

void ReportError(const std::string& line) {
    std::shared_ptr<const ErrorHandler> handler;
    {
        ErrorOutlet& outlet = TheErrorOutlet();
        Lock lock(outlet.mutex);
        handler = outlet.handler;
    }
    if (handler)
        (*handler)(line);
    else
        std::fprintf(stderr, "qscservice: %s\n", line.c_str());
}

}  // namespace qscservice
