#pragma once
// The key table of QXMetaData: each declared key, the field it reaches and
// its display name.

#include <variant>

#include "qxmedia/metadata/QXMetaData.h"

namespace qx::metadata {

using TextField = QXAtomicObject<std::string> QXMetaData::*;
using ListField = QXAtomicObject<QXStringList> QXMetaData::*;
using ArtworkField = QXAtomicObject<QXArtworkList> QXMetaData::*;
using DateField = QXAtomicObject<QXDate> QXMetaData::*;
using URLField = QXAtomicObject<QXURL> QXMetaData::*;
using BoxedField = QXAtomicObject<int64_t> QXMetaData::*;
using UnsignedField = uint64_t QXMetaData::*;
using SignedField = int64_t QXMetaData::*;
using FlagField = bool QXMetaData::*;

using Field = std::variant<TextField, ListField, ArtworkField, DateField, URLField, BoxedField, UnsignedField,
                           SignedField, FlagField>;

struct KeyRow {
    const char* key;
    Field field;
    const char* displayName; // null: the key displays as itself
};

// The 81 rows, identifier keys first.
const std::vector<KeyRow>& keyRows();
// The row of a declared key, or of "compilation", which is a field without
// being one of the 81 keys; null for any other key.
const KeyRow* rowForKey(std::string_view key);

inline bool isScalar(const Field& field)
{
    return std::holds_alternative<UnsignedField>(field) || std::holds_alternative<SignedField>(field) ||
           std::holds_alternative<FlagField>(field);
}

} // namespace qx::metadata
