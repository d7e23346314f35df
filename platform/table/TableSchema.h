// TableSchema: the layout of one table as registered through
// internalInitialize / setNextField / setNextIndex / setNextSegment, with the
// checks that registration enforces and the byte form stored in both files.
//
// A schema is built in steps (begin, add fields, indexes, segments, complete);
// each step answers a TableStatus. After complete() the schema is immutable
// until the next begin(). Not thread-safe.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace wztable {

struct TableField {
  std::string name;
  uint64_t offset = 0;
  int16_t type = 0;
  int16_t length = 0;
};

struct TableIndex {
  std::string name;
  int16_t keyLength = 0;
  int32_t keyType = 0;
  bool duplicates = false;
  int16_t numSegments = 0;
  int16_t firstSegment = 0;
};

struct TableSegment {
  int16_t fieldNumber = 0;
  int16_t segmentSize = 0;
  bool caseSensitive = true;
  // Filled by complete(): offset of the segment's bytes inside the key.
  int16_t keyOffset = 0;
};

// Limits set by internalRegisterTable(maxFields, maxIndices, maxSegments).
struct TableLimits {
  int maxFields = 64;
  int maxIndices = 16;
  int maxSegments = 64;
};

// Absolute bounds whatever the registered limits: the LMDB key size (511
// bytes) and the number of named databases of the index file.
constexpr int kMaxKeyLength = 511;
constexpr int kHardMaxIndices = 64;
constexpr int kHardMaxFields = 1024;
constexpr int kHardMaxSegments = 1024;

class TableSchema {
 public:
  int begin(unsigned variableLength, unsigned numFields, unsigned numIndices,
            unsigned numSegments, unsigned recordSize, unsigned fixedRecordSize,
            const TableLimits& limits);
  int addField(const char* name, unsigned long offset, short type, short length);
  int addIndex(const char* name, short keyLength, int32_t keyType, short duplicates,
               short nullKey, short emptyChar, short numSegments, short segmentNumber);
  int addSegment(short fieldNumber, short segmentSize, char caseSensitive);
  int addOrder(int fieldNumber);
  int complete();
  void clear();

  bool started() const { return started_; }
  bool isComplete() const { return complete_flag_; }

  bool variableLength() const { return variableLength_; }
  uint32_t recordSize() const { return recordSize_; }
  uint32_t fixedRecordSize() const { return fixedRecordSize_; }
  const std::vector<TableField>& fields() const { return fields_; }
  const std::vector<TableIndex>& indexes() const { return indexes_; }
  const std::vector<TableSegment>& segments() const { return segments_; }
  const std::vector<int>& order() const { return order_; }

  // The schema's identity as stored in the files: sizes, every field, index
  // and segment. Two schemas are the same table layout iff these are equal.
  std::string serialize() const;
  // Rebuilds a schema from its stored form (serialize()'s output), through
  // the same checks as registration. TBL_BAD_FORMAT for anything else.
  int parse(const std::string& bytes);

 private:
  bool started_ = false;
  bool complete_flag_ = false;
  bool variableLength_ = false;
  uint32_t numFields_ = 0, numIndices_ = 0, numSegments_ = 0;
  uint32_t recordSize_ = 0, fixedRecordSize_ = 0;
  std::vector<TableField> fields_;
  std::vector<TableIndex> indexes_;
  std::vector<TableSegment> segments_;
  std::vector<int> order_;
};

}  // namespace wztable
