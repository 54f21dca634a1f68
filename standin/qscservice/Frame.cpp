#include "standin/qscservice/Frame.h"

#include <bit>
#include <cstring>

namespace qscservice {

static_assert(std::endian::native == std::endian::little, "frames are written as they lie in memory");

namespace {

constexpr size_t kItemHeaderBytes = 8;
constexpr size_t kHeaderBytes = sizeof(FrameHeader);

struct ItemHeader {
    uint16_t kind;
    ItemRole role;
    uint8_t zero;
    uint32_t size;
};
static_assert(sizeof(ItemHeader) == kItemHeaderBytes);

constexpr size_t Padded(size_t size) {
    return (size + 7) & ~size_t{7};
}

bool IsNumber(uint16_t kind) {
    switch (kind) {
        case kKindInt8:
        case kKindInt16:
        case kKindUInt16:
        case kKindInt32:
        case QSC_VT_UI4:
        case kKindInt64:
        case QSC_VT_UI8:
        case kKindFloat:
        case kKindDouble:
            return true;
        default:
            return false;
    }
}

void AppendBytes(std::vector<uint8_t>* frame, const void* data, size_t size) {
    const auto* bytes = static_cast<const uint8_t*>(data);
    frame->insert(frame->end(), bytes, bytes + size);
}

void Pad(std::vector<uint8_t>* frame) {
    frame->resize(Padded(frame->size()));
}

// Takes size bytes and their padding from the front of bytes.
bool Take(std::span<const uint8_t>* bytes, size_t size, std::span<const uint8_t>* taken) {
    if (size > bytes->size() || Padded(size) > bytes->size()) return false;
    *taken = bytes->first(size);
    *bytes = bytes->subspan(Padded(size));
    return true;
}

bool ToText(std::span<const uint8_t> bytes, std::string_view* text) {
    if (bytes.empty() || bytes.back() != 0) return false;
    *text = {reinterpret_cast<const char*>(bytes.data()), bytes.size() - 1};
    return text->find('\0') == std::string_view::npos;
}

bool TakeName(std::span<const uint8_t>* rest, std::string_view* name) {
    std::span<const uint8_t> taken;
    if (!Take(rest, 8, &taken)) return false;
    uint32_t size = 0;
    std::memcpy(&size, taken.data(), sizeof size);
    if (size > kMaxNameBytes || !Take(rest, size + 1, &taken)) return false;
    return ToText(taken, name);
}

bool TakeValue(std::span<const uint8_t>* rest, const ItemHeader& header, Value* value) {
    std::span<const uint8_t> taken;
    if (!Take(rest, header.size, &taken)) return false;
    *value = Value();
    value->kind = header.kind;
    if (header.kind == QSC_VT_LPSTR) return ToText(taken, &value->text);
    if (header.kind == QSC_VT_BLOB) {
        value->blob = taken;
        return true;
    }
    if (header.kind == kKindEmpty) return header.size == 0;
    if (!IsNumber(header.kind) || header.size != sizeof value->number) return false;
    std::memcpy(&value->number, taken.data(), sizeof value->number);
    return true;
}

DecodeResult Malformed(const char* error) {
    return {DecodeResult::Malformed, 0, error};
}

const char* CheckHeader(const FrameHeader& header) {
    if (header.magic != kFrameMagic) return "frame does not begin with the frame mark";
    if (header.size > kMaxFrameBytes) return "frame is longer than the limit";
    if (header.size < kHeaderBytes || header.size % 8 != 0) return "frame has an impossible length";
    if (header.type < FrameType::Hello || header.type > kLastFrameType || header.zero != 0) {
        return "frame is of unknown type";
    }
    if (header.itemCount > kMaxItems) return "frame has more items than the limit";
    return nullptr;
}

bool CheckItems(const FrameView& view) {
    size_t offset = 0;
    uint32_t count = 0;
    for (Item item; ReadItem(view.items, &offset, &item);) ++count;
    return offset == view.items.size() && count == view.header.itemCount;
}

}  // namespace

DecodeResult DecodeFrame(std::span<const uint8_t> bytes, FrameView* view) {
    if (bytes.size() < kHeaderBytes) return {DecodeResult::NeedMore, kHeaderBytes, nullptr};
    FrameView found;
    std::memcpy(&found.header, bytes.data(), kHeaderBytes);
    if (const char* error = CheckHeader(found.header)) return Malformed(error);
    const size_t size = found.header.size;
    if (bytes.size() < size) return {DecodeResult::NeedMore, size, nullptr};
    found.items = bytes.subspan(kHeaderBytes, size - kHeaderBytes);
    if (!CheckItems(found)) return Malformed("frame has a broken item");
    *view = found;
    return {DecodeResult::Complete, size, nullptr};
}

bool ReadItem(std::span<const uint8_t> items, size_t* offset, Item* item) {
    if (*offset >= items.size() || items.size() - *offset < kItemHeaderBytes) return false;
    ItemHeader header;
    std::memcpy(&header, items.data() + *offset, kItemHeaderBytes);
    if (static_cast<size_t>(header.role) >= kItemRoles || header.zero != 0) return false;
    std::span<const uint8_t> rest = items.subspan(*offset + kItemHeaderBytes);
    item->role = header.role;
    item->name = {};
    if (header.role == ItemRole::NamedParam && !TakeName(&rest, &item->name)) return false;
    if (!TakeValue(&rest, header, &item->value)) return false;
    *offset = items.size() - rest.size();
    return true;
}

void BeginFrame(std::vector<uint8_t>* frame) {
    frame->assign(kHeaderBytes, 0);
}

bool AppendItem(std::vector<uint8_t>* frame, ItemRole role, std::string_view name, const Value& value) {
    const bool isText = value.kind == QSC_VT_LPSTR;
    const bool isBlob = value.kind == QSC_VT_BLOB;
    if (!isText && !isBlob && value.kind != kKindEmpty && !IsNumber(value.kind)) return false;
    if (name.size() > kMaxNameBytes || name.find('\0') != name.npos || value.text.find('\0') != value.text.npos) {
        return false;
    }
    const size_t size = isText ? value.text.size() + 1 : isBlob ? value.blob.size() : value.kind == kKindEmpty ? 0 : 8;
    const size_t nameSize = role == ItemRole::NamedParam ? 8 + Padded(name.size() + 1) : 0;
    const size_t room = kMaxFrameBytes - frame->size();
    if (size > room || kItemHeaderBytes + nameSize + Padded(size) > room) return false;

    const ItemHeader header = {value.kind, role, 0, static_cast<uint32_t>(size)};
    AppendBytes(frame, &header, sizeof header);
    if (role == ItemRole::NamedParam) {
        const uint64_t length = name.size();
        AppendBytes(frame, &length, sizeof length);
        AppendBytes(frame, name.data(), name.size());
        frame->push_back(0);
        Pad(frame);
    }
    if (isText) {
        AppendBytes(frame, value.text.data(), value.text.size());
        frame->push_back(0);
    } else if (isBlob) {
        AppendBytes(frame, value.blob.data(), size);
    } else if (size != 0) {
        AppendBytes(frame, &value.number, size);
    }
    Pad(frame);
    return true;
}

void SealFrame(std::vector<uint8_t>* frame, const FrameHeader& fields) {
    FrameHeader header = fields;
    header.magic = kFrameMagic;
    header.size = static_cast<uint32_t>(frame->size());
    std::memcpy(frame->data(), &header, kHeaderBytes);
}

std::vector<uint8_t> MakeFrame(FrameType type, Values values) {
    std::vector<uint8_t> frame;
    BeginFrame(&frame);
    FrameHeader header = {};
    header.type = type;
    for (const Value& value : values) {
        if (AppendItem(&frame, ItemRole::Param, {}, value)) ++header.itemCount;
    }
    SealFrame(&frame, header);
    return frame;
}

std::vector<Value> ItemValues(const FrameView& frame) {
    std::vector<Value> values;
    size_t offset = 0;
    for (Item item; ReadItem(frame.items, &offset, &item);) values.push_back(item.value);
    return values;
}

}  // namespace qscservice
