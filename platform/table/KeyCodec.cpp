#include "KeyCodec.h"

#include <cstring>

#include "table/TFieldType.h"
#include "table/TKeyType.h"

namespace wztable {

void transformSegment(const TableField& field, const TableSegment& segment,
                      const uint8_t* source, uint8_t* out) {
  const size_t size = static_cast<size_t>(segment.segmentSize);
  switch (field.type) {
    case kFieldUInt8:
    case kFieldUInt32:
    case kFieldUInt64:
      // Little-endian in the record, big-endian in the key.
      for (size_t i = 0; i < size; ++i) out[i] = source[size - 1 - i];
      return;
    case kFieldString:
      if (!segment.caseSensitive) {
        for (size_t i = 0; i < size; ++i) {
          uint8_t c = source[i];
          out[i] = (c >= 'a' && c <= 'z') ? static_cast<uint8_t>(c - 'a' + 'A') : c;
        }
        return;
      }
      std::memcpy(out, source, size);
      return;
    default:
      std::memcpy(out, source, size);
      return;
  }
}

void buildRecordKey(const TableSchema& schema, int index, const uint8_t* image, uint8_t* out) {
  const TableIndex& idx = schema.indexes()[index];
  for (int s = 0; s < idx.numSegments; ++s) {
    const TableSegment& segment = schema.segments()[idx.firstSegment + s];
    const TableField& field = schema.fields()[segment.fieldNumber];
    transformSegment(field, segment, image + field.offset, out + segment.keyOffset);
  }
}

size_t storedKeyLength(const TableIndex& index, const uint8_t* key, size_t length) {
  if (index.keyType != kKeyCompressBoth) return length;
  while (length > 1 && key[length - 1] == 0) --length;
  return length;
}

}  // namespace wztable
