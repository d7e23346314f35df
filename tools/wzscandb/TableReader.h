// TableReader: reads tree records of an open ScanDatabase straight from the
// table engine into image buffers, one folder or one key at a time.
//
// Children come from one engine run over the parent index, sorted by name
// (byte order); a Lustre root, which lists itself among its children, is left
// out of its own list. Keyed reads and runs are made in the engine's bypass
// mode, so they never move the engine's current record: a physical-order scan
// (ForEachRecord) may look records up while it runs. Only reads: works on a
// read-only database. Not thread-safe (one table, one thread).
#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "ImageList.h"
#include "RecordImage.h"
#include "ScanDatabase.h"

class TableReader {
 public:
  explicit TableReader(ScanDatabase& database);

  const RecordLayout& layout() const { return layout_; }

  // Replaces `children` with the children of the folder whose image is
  // `folder`, sorted by name. Throws ToolError when the engine fails.
  void ReadChildren(const char* folder, ImageList& children);

  // Reads the record whose own key is `key` into `image` (layout().size
  // bytes); false when there is none.
  bool ReadByKey(std::string_view key, char* image);

  // Calls `visit` with every record of the table in the engine's physical
  // order (record numbers ascending), one image at a time.
  void ForEachRecord(const std::function<void(const char* image)>& visit);

 private:
  // Builds into key_ the key of `request`, made by scratch_ for `image`.
  void BuildKey(const char* image, bool children);

  ScanDatabase& database_;
  WzScanDB& db_;
  const RecordLayout& layout_;
  WzScanDBRecordBasePtr scratch_;
  std::vector<char> key_;
};

// Calls `visit` with every record image of the table (`recordSize` bytes) in
// the engine's physical order. Throws ToolError when the engine fails.
void ForEachTableRecord(WzScanDB& db, size_t recordSize,
                        const std::function<void(const char* image)>& visit);

// Bypass mode for the life of the object: reads leave the current record alone.
class BypassScope {
 public:
  explicit BypassScope(WzScanDB& db) : db_(db), saved_(db.getBypassMode()) { db_.setBypassMode(true); }
  ~BypassScope() { db_.setBypassMode(saved_); }

 private:
  WzScanDB& db_;
  bool saved_;
};
