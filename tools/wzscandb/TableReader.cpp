#include "TableReader.h"

#include <algorithm>
#include <cstring>

#include "ToolError.h"

namespace {

// Appends each record of the run to the list; stops at the first record that
// is not a child of the folder.
class ChildRun : public TCtreeTable::RunReceiver {
 public:
  ChildRun(const RecordLayout& layout, const char* folder, ImageList& out)
      : layout_(layout), folder_(layout, folder), out_(out) {}

  void* buffer() override { return out_.append(); }
  bool take() override {
    ImageView child(layout_, out_.at(out_.size() - 1));
    if (child.parentKey() != folder_.key()) {
      out_.pop_back();
      return false;
    }
    if (child.key() == folder_.key()) out_.pop_back();  // a root is its own child
    return true;
  }

 private:
  const RecordLayout& layout_;
  ImageView folder_;
  ImageList& out_;
};

std::string EngineError(const char* what, int status) {
  return std::string(what) + ": engine status " + std::to_string(status) + " (" +
         TCtreeTable::errToString(status) + ")";
}

}  // namespace

TableReader::TableReader(ScanDatabase& database)
    : database_(database), db_(database.db()), layout_(RecordLayout::Of(database.type())),
      scratch_(database.NewRecord()) {}

void TableReader::BuildKey(const char* image, bool children) {
  std::memcpy(scratch_->getStructure(), image, layout_.size);
  SPrepareIndexKeyStructure request =
      children ? scratch_->prepareIndexKeyFromParent() : scratch_->prepareIndexKey(scratch_->keyIndex());
  key_.assign(static_cast<size_t>(request.keyBufferSize), 0);
  CKoError error = db_.prepareIndexKey(request, key_.data(), request.keyBufferSize);
  if (error.IsError()) throw ToolError(kExitFailed, "cannot build a key: " + ErrorLine(error));
}

void TableReader::ReadChildren(const char* folder, ImageList& children) {
  BuildKey(folder, true);
  children.reset(layout_.size);
  ChildRun run(layout_, folder, children);
  int status;
  {
    BypassScope bypass(db_);
    status = db_.readRun(scratch_->parentIndex(), key_.data(), database_.childKeyPrefix(), run);
  }
  if (status != TBL_OK && status != TBL_NOT_FOUND)
    throw ToolError(kExitFailed, EngineError("cannot read the children of a folder", status));
  const RecordLayout& layout = layout_;
  children.sort([&layout](const char* a, const char* b) {
    return ImageView(layout, a).name() < ImageView(layout, b).name();
  });
}

bool TableReader::ReadByKey(std::string_view key, char* image) {
  std::vector<char> probe(layout_.size, 0);
  SetImageKey(layout_, probe.data(), key);
  BuildKey(probe.data(), false);
  int status;
  {
    BypassScope bypass(db_);
    status = db_.getRecord(scratch_->keyIndex(), key_.data(), image);
  }
  if (status == TBL_NOT_FOUND) return false;
  if (status != TBL_OK) throw ToolError(kExitFailed, EngineError("cannot look a record up", status));
  return ImageView(layout_, image).key() == key;
}

void TableReader::ForEachRecord(const std::function<void(const char* image)>& visit) {
  ForEachTableRecord(db_, layout_.size, visit);
}

void ForEachTableRecord(WzScanDB& db, size_t recordSize,
                        const std::function<void(const char* image)>& visit) {
  std::vector<char> image(recordSize, 0);
  int status = db.firstRecord(-1, image.data());
  while (status == TBL_OK) {
    visit(image.data());
    status = db.nextRecord(-1, image.data());
  }
  if (status != TBL_NOT_FOUND)
    throw ToolError(kExitFailed, EngineError("cannot read the table", status));
}
