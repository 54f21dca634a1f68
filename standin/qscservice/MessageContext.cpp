// Contexts live in blocks that are allocated once and never freed. A handle holds the context's index, the low bits of
// its generation, and a low bit of 1, which no object handle has. Finding one takes no lock; the free list has one.
#include "standin/qscservice/MessageContext.h"

#include "standin/qscservice/LockGuard.h"

namespace qscservice {

namespace {

constexpr uint32_t kBlockContexts = 128;
constexpr uint32_t kMaxBlocks = 256;
constexpr uint32_t kMaxContexts = kBlockContexts * kMaxBlocks - 1;
constexpr uint32_t kIndexBits = 15;
constexpr uint32_t kGenerationMask = 0xFFFF;
constexpr size_t kKeptBufferBytes = 1 << 20;  // a larger buffer isn't kept for the next use

static_assert(kMaxContexts < (1u << kIndexBits));

using Block = std::array<MessageContext, kBlockContexts>;

struct Pool {
    std::array<std::atomic<Block*>, kMaxBlocks> blocks = {};  // written once each, release/acquire
    Mutex mutex;                                              // guards the fields below
    std::vector<uint32_t> free GUARDED_BY(mutex);
    uint32_t used GUARDED_BY(mutex) = 0;  // contexts that were ever handed out
    std::atomic<uint32_t> nextRequestId{1};
};

Pool& ThePool() {
    static Pool* pool = new Pool;
    return *pool;
}

MessageContext* At(uint32_t index) {
    Block* block = ThePool().blocks[index / kBlockContexts].load(std::memory_order_acquire);
    return block ? &(*block)[index % kBlockContexts] : nullptr;
}

void* MakeHandle(uint32_t index, uint32_t generation) {
    const uint32_t word = (generation & kGenerationMask) << (kIndexBits + 1) | index << 1 | 1;
    return reinterpret_cast<void*>(static_cast<uintptr_t>(word));
}

bool TakeFreeIndex(uint32_t* index) {
    Pool& pool = ThePool();
    Lock lock(pool.mutex);
    if (!pool.free.empty()) {
        *index = pool.free.back();
        pool.free.pop_back();
        return true;
    }
    if (pool.used == kMaxContexts) return false;
    if (pool.used % kBlockContexts == 0) {
        pool.blocks[pool.used / kBlockContexts].store(new Block, std::memory_order_release);
    }
    *index = pool.used++;
    return true;
}

uint32_t NextRequestId() {
    uint32_t id = ThePool().nextRequestId.fetch_add(1, std::memory_order_relaxed);
    return id != 0 ? id : ThePool().nextRequestId.fetch_add(1, std::memory_order_relaxed);
}

void EmptyBuffer(std::vector<uint8_t>* buffer) {
    buffer->clear();
    if (buffer->capacity() > kKeptBufferBytes) buffer->shrink_to_fit();
}

}  // namespace

bool MessageContext::Move(State from, State to) {
    return m_state.compare_exchange_strong(from, to, std::memory_order_acq_rel);
}

bool MessageContext::Append(ItemRole role, std::string_view name, const Value& value) {
    const State state = GetState();
    const bool answering = isRequest && role == ItemRole::ReturnValue;
    if (state != State::Own && !(answering && (state == State::Inbound || state == State::Deferred))) return false;
    if (m_items[0].size() + m_items[1].size() + m_items[2].size() >= kMaxItems) return false;
    if (m_frame.empty()) BeginFrame(&m_frame);
    const auto offset = static_cast<uint32_t>(m_frame.size() - sizeof(FrameHeader));
    if (!AppendItem(&m_frame, role, name, value)) return false;
    m_items[static_cast<size_t>(role)].push_back({offset, false});
    return true;
}

bool MessageContext::Get(ItemRole role, int index, Item* item) const {
    if (index < 0 || index >= Count(role)) return false;
    const ItemPlace& place = m_items[static_cast<size_t>(role)][static_cast<size_t>(index)];
    size_t offset = place.offset;
    return ReadItem(ItemBytes(place.received), &offset, item);
}

std::span<uint8_t> MessageContext::Seal(FrameType type, uint32_t object) {
    if (m_frame.empty()) BeginFrame(&m_frame);
    FrameHeader header = {};
    header.type = type;
    header.object = object;
    header.command = command;
    header.requestId = requestId;
    for (const auto& places : m_items) {
        for (const ItemPlace& place : places) header.itemCount += place.received ? 0 : 1;
    }
    SealFrame(&m_frame, header);
    return m_frame;
}

void MessageContext::Receive(const FrameView& frame) {
    requestId = frame.header.requestId;
    isRequest = frame.header.type == FrameType::Request;
    post = frame.header.type == FrameType::Post;
    ReceiveAnswer(frame);
}

void MessageContext::ReceiveAnswer(const FrameView& frame) {
    command = frame.header.command;
    m_received = frame.items;
    size_t offset = 0;
    size_t next = 0;
    for (Item item; ReadItem(frame.items, &next, &item); offset = next) {
        m_items[static_cast<size_t>(item.role)].push_back({static_cast<uint32_t>(offset), true});
    }
}

void MessageContext::KeepReceived() {
    m_kept.assign(m_received.begin(), m_received.end());
    m_received = m_kept;
}

std::span<const uint8_t> MessageContext::ItemBytes(bool received) const {
    return received ? m_received : std::span<const uint8_t>(m_frame).subspan(sizeof(FrameHeader));
}

void MessageContext::Reset() {
    EmptyBuffer(&m_frame);
    EmptyBuffer(&m_kept);
    m_received = {};
    for (auto& places : m_items) places.clear();
    command = 0;
    requestId = 0;
    post = false;
    isRequest = false;
    origin.reset();
    receiver.reset();
}

MessageContext* ContextTable::Create(MessageContext::State state) {
    uint32_t index = 0;
    if (!TakeFreeIndex(&index)) return nullptr;
    MessageContext* context = At(index);
    context->m_index = index;
    context->m_handle = MakeHandle(index, context->m_generation.load(std::memory_order_relaxed));
    context->requestId = NextRequestId();
    context->m_state.store(state, std::memory_order_release);
    return context;
}

MessageContext* ContextTable::Find(void* hContext) {
    const auto word = reinterpret_cast<uintptr_t>(hContext);
    if ((word & 1) == 0 || word > UINT32_MAX) return nullptr;
    MessageContext* context = At(static_cast<uint32_t>(word) >> 1 & ((1u << kIndexBits) - 1));
    if (!context || context->GetState() == MessageContext::State::Free) return nullptr;
    const uint32_t generation = context->m_generation.load(std::memory_order_acquire) & kGenerationMask;
    return generation == static_cast<uint32_t>(word) >> (kIndexBits + 1) ? context : nullptr;
}

void ContextTable::Release(MessageContext* context) {
    context->Reset();
    context->m_generation.fetch_add(1, std::memory_order_release);
    context->m_state.store(MessageContext::State::Free, std::memory_order_release);
    Pool& pool = ThePool();
    Lock lock(pool.mutex);
    pool.free.push_back(context->m_index);
}

size_t ContextTable::Live() {
    Pool& pool = ThePool();
    Lock lock(pool.mutex);
    return pool.used - pool.free.size();
}

}  // namespace qscservice
