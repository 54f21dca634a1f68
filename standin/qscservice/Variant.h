// Between the boundary's variants and the values inside the stand-in.
#pragma once

#include "rpc/QSCServiceTables.h"
#include "standin/qscservice/Value.h"

namespace qscservice {

// A variant that refers to the value's text or bytes: clearing it frees nothing.
QSC_RPC_VARIANT ToVariant(const Value& value);
// A value that refers to what the variant holds. False for a null string, and for a blob without data but with a size.
bool FromVariant(const QSC_RPC_VARIANT& variant, Value* value);

extern const QSCRPC_VariantInterface kVariantTable;

}  // namespace qscservice
