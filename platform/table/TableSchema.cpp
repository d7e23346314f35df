#include "TableSchema.h"

#include <algorithm>
#include <cstring>

#include "table/TFieldType.h"
#include "table/TKeyType.h"
#include "table/TableStatus.h"

namespace wztable {
namespace {

bool knownFieldType(short type) {
  switch (type) {
    case kFieldUInt8:
    case kFieldUInt32:
    case kFieldUInt64:
    case kFieldBinary:
    case kFieldString:
      return true;
    default:
      return false;
  }
}

// Integer fields have one fixed width; their key segment takes all of it.
int integerWidth(short type) {
  switch (type) {
    case kFieldUInt8: return 1;
    case kFieldUInt32: return 4;
    case kFieldUInt64: return 8;
    default: return 0;
  }
}

void putU32(std::string& out, uint32_t v) { out.append(reinterpret_cast<const char*>(&v), 4); }
void putU64(std::string& out, uint64_t v) { out.append(reinterpret_cast<const char*>(&v), 8); }
void putStr(std::string& out, const std::string& s) {
  putU32(out, static_cast<uint32_t>(s.size()));
  out.append(s);
}

}  // namespace

void TableSchema::clear() { *this = TableSchema(); }

int TableSchema::begin(unsigned variableLength, unsigned numFields, unsigned numIndices,
                       unsigned numSegments, unsigned recordSize, unsigned fixedRecordSize,
                       const TableLimits& limits) {
  clear();
  if (variableLength > 1) return TBL_BAD_SCHEMA;
  if (numFields == 0 || numFields > static_cast<unsigned>(limits.maxFields)) return TBL_BAD_SCHEMA;
  if (numIndices == 0 || numIndices > static_cast<unsigned>(limits.maxIndices)) return TBL_BAD_SCHEMA;
  if (numSegments < numIndices || numSegments > static_cast<unsigned>(limits.maxSegments))
    return TBL_BAD_SCHEMA;
  if (recordSize == 0 || recordSize > (1u << 24)) return TBL_BAD_SCHEMA;
  if (fixedRecordSize > recordSize) return TBL_BAD_SCHEMA;
  started_ = true;
  variableLength_ = variableLength == 1;
  numFields_ = numFields;
  numIndices_ = numIndices;
  numSegments_ = numSegments;
  recordSize_ = recordSize;
  fixedRecordSize_ = variableLength_ ? fixedRecordSize : recordSize;
  return TBL_OK;
}

int TableSchema::addField(const char* name, unsigned long offset, short type, short length) {
  if (!started_ || complete_flag_) return TBL_NOT_DEFINED;
  if (fields_.size() >= numFields_) return TBL_BAD_SCHEMA;
  if (!name || !*name || !knownFieldType(type) || length <= 0) return TBL_BAD_SCHEMA;
  if (integerWidth(type) && integerWidth(type) != length) return TBL_BAD_SCHEMA;
  if (offset > recordSize_ || static_cast<uint64_t>(length) > recordSize_ - offset)
    return TBL_BAD_SCHEMA;
  fields_.push_back(TableField{name, offset, type, length});
  return TBL_OK;
}

int TableSchema::addIndex(const char* name, short keyLength, int32_t keyType, short duplicates,
                          short nullKey, short emptyChar, short numSegments,
                          short segmentNumber) {
  if (!started_ || complete_flag_) return TBL_NOT_DEFINED;
  if (indexes_.size() >= numIndices_) return TBL_BAD_SCHEMA;
  if (!name || !*name) return TBL_BAD_SCHEMA;
  if (keyLength <= 0 || keyLength > kMaxKeyLength) return TBL_BAD_SCHEMA;
  if (keyType != kKeyFixed && keyType != kKeyCompressBoth) return TBL_BAD_SCHEMA;
  if (duplicates != 0 && duplicates != 1) return TBL_BAD_SCHEMA;
  // Null-key suppression and pad characters other than zero are not offered.
  if (nullKey != 0 || emptyChar != 0) return TBL_BAD_SCHEMA;
  if (numSegments <= 0 || segmentNumber < 0) return TBL_BAD_SCHEMA;
  // Each index's segments follow the previous index's in the segment list.
  int expectedFirst = 0;
  for (const TableIndex& index : indexes_) expectedFirst += index.numSegments;
  if (segmentNumber != expectedFirst) return TBL_BAD_SCHEMA;
  if (static_cast<unsigned>(segmentNumber + numSegments) > numSegments_) return TBL_BAD_SCHEMA;
  for (const TableIndex& index : indexes_)
    if (index.name == name) return TBL_BAD_SCHEMA;
  indexes_.push_back(TableIndex{name, keyLength, keyType, duplicates == 1, numSegments,
                                segmentNumber});
  return TBL_OK;
}

int TableSchema::addSegment(short fieldNumber, short segmentSize, char caseSensitive) {
  if (!started_ || complete_flag_) return TBL_NOT_DEFINED;
  if (segments_.size() >= numSegments_) return TBL_BAD_SCHEMA;
  if (fieldNumber < 0 || static_cast<size_t>(fieldNumber) >= fields_.size()) return TBL_BAD_SCHEMA;
  const TableField& field = fields_[fieldNumber];
  if (segmentSize <= 0 || segmentSize > field.length) return TBL_BAD_SCHEMA;
  if (integerWidth(field.type) && segmentSize != field.length) return TBL_BAD_SCHEMA;
  if (caseSensitive != 0 && caseSensitive != 1) return TBL_BAD_SCHEMA;
  segments_.push_back(TableSegment{fieldNumber, segmentSize, caseSensitive == 1, 0});
  return TBL_OK;
}

int TableSchema::addOrder(int fieldNumber) {
  if (!started_) return TBL_NOT_DEFINED;
  if (fieldNumber < 0 || static_cast<size_t>(fieldNumber) >= fields_.size()) return TBL_BAD_ARGUMENT;
  for (int known : order_)
    if (known == fieldNumber) return TBL_OK;
  order_.push_back(fieldNumber);
  return TBL_OK;
}

int TableSchema::complete() {
  if (!started_ || complete_flag_) return TBL_NOT_DEFINED;
  if (fields_.size() != numFields_ || indexes_.size() != numIndices_ ||
      segments_.size() != numSegments_)
    return TBL_BAD_SCHEMA;
  for (const TableIndex& index : indexes_) {
    int keyOffset = 0;
    for (int s = 0; s < index.numSegments; ++s) {
      TableSegment& segment = segments_[index.firstSegment + s];
      segment.keyOffset = static_cast<int16_t>(keyOffset);
      keyOffset += segment.segmentSize;
    }
    if (keyOffset != index.keyLength) return TBL_BAD_SCHEMA;
  }
  complete_flag_ = true;
  return TBL_OK;
}

std::string TableSchema::serialize() const {
  std::string out;
  out.reserve(256);
  putU32(out, variableLength_ ? 1 : 0);
  putU32(out, recordSize_);
  putU32(out, fixedRecordSize_);
  putU32(out, static_cast<uint32_t>(fields_.size()));
  for (const TableField& f : fields_) {
    putStr(out, f.name);
    putU64(out, f.offset);
    putU32(out, static_cast<uint16_t>(f.type));
    putU32(out, static_cast<uint16_t>(f.length));
  }
  putU32(out, static_cast<uint32_t>(indexes_.size()));
  for (const TableIndex& i : indexes_) {
    putStr(out, i.name);
    putU32(out, static_cast<uint16_t>(i.keyLength));
    putU32(out, static_cast<uint32_t>(i.keyType));
    putU32(out, i.duplicates ? 1 : 0);
    putU32(out, static_cast<uint16_t>(i.numSegments));
    putU32(out, static_cast<uint16_t>(i.firstSegment));
  }
  putU32(out, static_cast<uint32_t>(segments_.size()));
  for (const TableSegment& s : segments_) {
    putU32(out, static_cast<uint16_t>(s.fieldNumber));
    putU32(out, static_cast<uint16_t>(s.segmentSize));
    putU32(out, s.caseSensitive ? 1 : 0);
  }
  return out;
}

namespace {

// Reads the stored form front to back; any read past the end fails it.
class Reader {
 public:
  explicit Reader(const std::string& bytes) : bytes_(bytes) {}
  uint32_t u32() { return take<uint32_t>(); }
  uint64_t u64() { return take<uint64_t>(); }
  std::string str() {
    const uint32_t size = u32();
    if (!ok_ || size > bytes_.size() - at_) return fail(std::string());
    std::string out = bytes_.substr(at_, size);
    at_ += size;
    return out;
  }
  bool done() const { return ok_ && at_ == bytes_.size(); }
  bool ok() const { return ok_; }

 private:
  template <typename T>
  T take() {
    T value{};
    if (!ok_ || sizeof value > bytes_.size() - at_) return fail(value);
    std::memcpy(&value, bytes_.data() + at_, sizeof value);
    at_ += sizeof value;
    return value;
  }
  template <typename T>
  T fail(T value) {
    ok_ = false;
    return value;
  }
  const std::string& bytes_;
  size_t at_ = 0;
  bool ok_ = true;
};

}  // namespace

int TableSchema::parse(const std::string& bytes) {
  Reader in(bytes);
  const uint32_t variable = in.u32(), recordSize = in.u32(), fixedSize = in.u32();
  std::vector<TableField> fields(in.ok() ? std::min<uint32_t>(in.u32(), kHardMaxFields + 1) : 0);
  for (TableField& f : fields) {
    f.name = in.str();
    f.offset = in.u64();
    f.type = static_cast<int16_t>(in.u32());
    f.length = static_cast<int16_t>(in.u32());
  }
  std::vector<TableIndex> indexes(in.ok() ? std::min<uint32_t>(in.u32(), kHardMaxIndices + 1) : 0);
  for (TableIndex& i : indexes) {
    i.name = in.str();
    i.keyLength = static_cast<int16_t>(in.u32());
    i.keyType = static_cast<int32_t>(in.u32());
    i.duplicates = in.u32() != 0;
    i.numSegments = static_cast<int16_t>(in.u32());
    i.firstSegment = static_cast<int16_t>(in.u32());
  }
  std::vector<TableSegment> segments(in.ok() ? std::min<uint32_t>(in.u32(), kHardMaxSegments + 1) : 0);
  for (TableSegment& s : segments) {
    s.fieldNumber = static_cast<int16_t>(in.u32());
    s.segmentSize = static_cast<int16_t>(in.u32());
    s.caseSensitive = in.u32() != 0;
  }
  if (!in.done()) return TBL_BAD_FORMAT;
  const TableLimits hard{kHardMaxFields, kHardMaxIndices, kHardMaxSegments};
  int status = begin(variable, static_cast<unsigned>(fields.size()), static_cast<unsigned>(indexes.size()),
                     static_cast<unsigned>(segments.size()), recordSize, fixedSize, hard);
  for (const TableField& f : fields)
    if (status == TBL_OK) status = addField(f.name.c_str(), f.offset, f.type, f.length);
  for (const TableIndex& i : indexes)
    if (status == TBL_OK)
      status = addIndex(i.name.c_str(), i.keyLength, i.keyType, i.duplicates ? 1 : 0, 0, 0,
                        i.numSegments, i.firstSegment);
  for (const TableSegment& s : segments)
    if (status == TBL_OK) status = addSegment(s.fieldNumber, s.segmentSize, s.caseSensitive ? 1 : 0);
  if (status == TBL_OK) status = complete();
  if (status != TBL_OK || serialize() != bytes) {
    clear();
    return TBL_BAD_FORMAT;
  }
  return TBL_OK;
}

}  // namespace wztable
