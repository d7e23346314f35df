// fillKeySegment / finishKey: callers build search keys with the same
// transform the engine applies to record images.
#include <cstring>

#include "KeyCodec.h"
#include "TableImpl.h"

using namespace wztable;

int TCtreeTable::fillKeySegment(char** cursor, int* remaining, const void* data, int mode,
                                int index, int segment) {
  std::lock_guard<std::recursive_mutex> lock(impl_->mutex);
  Impl& im = *impl_;
  Impl::ThreadState& t = im.ts();
  if (!cursor || !*cursor || !remaining || !data) return TBL_BAD_ARGUMENT;
  if (!im.schema.isComplete()) return TBL_NOT_DEFINED;
  if (mode != 0) return TBL_BAD_ARGUMENT;  // one segment mode: the field's own transform
  if (index < 0 || static_cast<size_t>(index) >= im.schema.indexes().size()) return TBL_BAD_ARGUMENT;
  const TableIndex& idx = im.schema.indexes()[index];
  if (segment < 0 || segment >= idx.numSegments) return TBL_BAD_ARGUMENT;
  const TableSegment& seg = im.schema.segments()[idx.firstSegment + segment];
  const TableField& field = im.schema.fields()[seg.fieldNumber];
  if (*remaining < seg.segmentSize) return TBL_BAD_ARGUMENT;

  // A key is built segment after segment into one buffer; a new key starts at
  // segment 0, on another index, or wherever the cursor no longer continues.
  if (segment == 0 || t.buildIndex != index || t.buildNext != *cursor) {
    t.buildIndex = index;
    t.buildStart = *cursor;
    t.buildWritten = 0;
  }
  transformSegment(field, seg, static_cast<const uint8_t*>(data),
                   reinterpret_cast<uint8_t*>(*cursor));
  *cursor += seg.segmentSize;
  *remaining -= seg.segmentSize;
  t.buildWritten += seg.segmentSize;
  t.buildNext = *cursor;
  return TBL_OK;
}

int TCtreeTable::finishKey(char** cursor, int* remaining, int index, int mode) {
  std::lock_guard<std::recursive_mutex> lock(impl_->mutex);
  Impl& im = *impl_;
  Impl::ThreadState& t = im.ts();
  if (!cursor || !*cursor || !remaining) return TBL_BAD_ARGUMENT;
  if (!im.schema.isComplete()) return TBL_NOT_DEFINED;
  if (mode != 0) return TBL_BAD_ARGUMENT;
  if (index < 0 || static_cast<size_t>(index) >= im.schema.indexes().size()) return TBL_BAD_ARGUMENT;
  const int keyLength = im.schema.indexes()[index].keyLength;
  const int written = (t.buildIndex == index && t.buildNext == *cursor) ? t.buildWritten : 0;
  t.buildIndex = -1;
  t.buildStart = t.buildNext = nullptr;
  t.buildWritten = 0;
  const int pad = keyLength - written;
  if (pad < 0 || *remaining < pad) return TBL_BAD_ARGUMENT;
  // Segments left out (a prefix key) read as zero bytes: the smallest key
  // that starts with the given segments.
  std::memset(*cursor, 0, static_cast<size_t>(pad));
  *cursor += pad;
  *remaining -= pad;
  return TBL_OK;
}
