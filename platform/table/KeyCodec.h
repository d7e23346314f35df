// KeyCodec: how field bytes become key bytes, and how keys are stored.
//
// A segment's key bytes are the first segmentSize bytes of its field,
// transformed by the field's type: binary arrays as they are, strings
// ASCII upper-cased when the segment is not case-sensitive, unsigned integers
// (stored little-endian in the record) reversed to big-endian so that keys
// compare by value. The same transform serves keys that callers build with
// fillKeySegment and keys the engine takes from record images, so both match
// byte for byte.
//
// Keys of type kKeyCompressBoth are stored without their trailing zero bytes
// (at least one byte is kept: LMDB refuses empty keys). For keys of one fixed
// length this keeps their order, so searches trim the same way.
#pragma once

#include <cstddef>
#include <cstdint>

#include "TableSchema.h"

namespace wztable {

// Writes segment.segmentSize transformed bytes of `source` (the field's first
// byte) to `out`.
void transformSegment(const TableField& field, const TableSegment& segment,
                      const uint8_t* source, uint8_t* out);

// Builds the full key (index.keyLength bytes) of `index` from a record image.
void buildRecordKey(const TableSchema& schema, int index, const uint8_t* image, uint8_t* out);

// Number of bytes of a full key of `index` that are stored / searched.
size_t storedKeyLength(const TableIndex& index, const uint8_t* key, size_t length);

}  // namespace wztable
