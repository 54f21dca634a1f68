// A variant that owns its string says so in its three reserved words, which nobody else reads; what a context gives out
// and blobs are borrowed. Storing into a variant doesn't look at what it held: clearing first is the caller's part.
#include "standin/qscservice/Variant.h"

#include <cstdlib>
#include <cstring>

#include "standin/qscservice/CallScript.h"

namespace qscservice {

namespace {

constexpr uint16_t kOwned[3] = {0x5153, 0x4F57, 0x4E53};

size_t WidthOf(uint16_t kind) {
    switch (kind) {
        case kKindInt8:
            return 1;
        case kKindInt16:
        case kKindUInt16:
            return 2;
        case kKindInt32:
        case QSC_VT_UI4:
        case kKindFloat:
            return 4;
        default:
            return 8;
    }
}

bool OwnsString(const QSC_RPC_VARIANT& variant) {
    return variant.vt == QSC_VT_LPSTR && std::memcmp(variant.reserved, kOwned, sizeof kOwned) == 0;
}

Bool VariantInit(QSC_RPC_VARIANT* variant) {
    if (Refused(Op::VariantInit) || !variant) return FALSE;
    *variant = {};
    return TRUE;
}

Bool VariantClear(QSC_RPC_VARIANT* variant) {
    if (Refused(Op::VariantClear) || !variant) return FALSE;
    if (OwnsString(*variant)) std::free(variant->str);
    *variant = {};
    return TRUE;
}

template <uint16_t kKind, class T>
Bool VariantFromNumber(QSC_RPC_VARIANT* variant, T value) {
    if (Refused(Op::VariantFrom) || !variant) return FALSE;
    *variant = {};
    variant->vt = kKind;
    std::memcpy(&variant->uint64Val, &value, sizeof value);
    return TRUE;
}

Bool VariantFromString(QSC_RPC_VARIANT* variant, const char* value) {
    if (Refused(Op::VariantFrom) || !variant || !value) return FALSE;
    char* copy = strdup(value);
    if (!copy) return FALSE;
    *variant = {};
    variant->vt = QSC_VT_LPSTR;
    std::memcpy(variant->reserved, kOwned, sizeof kOwned);
    variant->str = copy;
    return TRUE;
}

Bool VariantFromBlob(QSC_RPC_VARIANT* variant, const QSC_RPC_BLOB* value) {
    if (Refused(Op::VariantFrom)) return FALSE;
    if (!variant || !value || (!value->data && value->size != 0)) return FALSE;
    *variant = {};
    variant->vt = QSC_VT_BLOB;
    variant->blob = *value;
    return TRUE;
}

}  // namespace

QSC_RPC_VARIANT ToVariant(const Value& value) {
    QSC_RPC_VARIANT variant = {};
    variant.vt = value.kind;
    if (value.kind == QSC_VT_LPSTR) {
        variant.str = const_cast<char*>(value.text.data());
    } else if (value.kind == QSC_VT_BLOB) {
        variant.blob = {static_cast<uint32_t>(value.blob.size()), value.blob.data()};
    } else {
        variant.uint64Val = value.number;
    }
    return variant;
}

bool FromVariant(const QSC_RPC_VARIANT& variant, Value* value) {
    *value = Value();
    value->kind = variant.vt;
    if (variant.vt == QSC_VT_LPSTR) {
        if (!variant.str) return false;
        value->text = variant.str;
    } else if (variant.vt == QSC_VT_BLOB) {
        if (!variant.blob.data && variant.blob.size != 0) return false;
        value->blob = {static_cast<const uint8_t*>(variant.blob.data), variant.blob.size};
    } else if (variant.vt != kKindEmpty) {
        std::memcpy(&value->number, &variant.uint64Val, WidthOf(variant.vt));
    }
    return true;
}

const QSCRPC_VariantInterface kVariantTable = {
    .unused0 = nullptr,
    .VariantInit = VariantInit,
    .unused2 = nullptr,
    .VariantClear = VariantClear,
    .VariantFromChar = VariantFromNumber<kKindInt8, char>,
    .VariantFromShort = VariantFromNumber<kKindInt16, short>,
    .VariantFromUShort = VariantFromNumber<kKindUInt16, unsigned short>,
    .VariantFromInt32 = VariantFromNumber<kKindInt32, int32_t>,
    .VariantFromUInt32 = VariantFromNumber<QSC_VT_UI4, uint32_t>,
    .VariantFromInt64 = VariantFromNumber<kKindInt64, int64_t>,
    .VariantFromUInt64 = VariantFromNumber<QSC_VT_UI8, uint64_t>,
    .VariantFromFloat = VariantFromNumber<kKindFloat, float>,
    .VariantFromDouble = VariantFromNumber<kKindDouble, double>,
    .VariantFromString = VariantFromString,
    .VariantFromBlob = VariantFromBlob,
};

}  // namespace qscservice
