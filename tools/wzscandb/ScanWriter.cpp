#include "ScanWriter.h"

#include <cstring>

#include "RecordImage.h"
#include "ToolError.h"
#include "table/TableStatus.h"

ScanWriter::ScanWriter(ScanDatabase* database, bool dryRun) : database_(database), dryRun_(dryRun) {
  if (dryRun_) return;
  const RecordLayout& layout = RecordLayout::Of(database_->type());
  recordSize_ = layout.size;
  scratch_ = database_->NewRecord();
}

WzScanDBRecordBasePtr ScanWriter::Load(const char* image) {
  WzScanDBRecordBasePtr record = scratch_;
  if (ImageView(RecordLayout::Of(database_->type()), image).isTop()) record = database_->NewRecord();
  std::memcpy(record->getStructure(), image, recordSize_);
  return record;
}

void ScanWriter::Add(const char* image, const std::string& path) {
  if (dryRun_) return;
  WzScanDBRecordBasePtr record = Load(image);
  CKoError error = database_->db().addRecordWithoutCheck(record);
  // The key is taken after all (a Lustre FID that moved here from a folder
  // not yet met): the record is rewritten in place.
  if (error.IsError() && error.GetKind() == EKoErrorKind::kInt && error.GetCode() == TBL_DUPLICATE_KEY)
    error = database_->db().updateDBRecord(record);
  ThrowIfError(error, "cannot record " + path);
}

void ScanWriter::Update(const char* image, const std::string& path) {
  if (dryRun_) return;
  ThrowIfError(database_->db().updateDBRecord(Load(image)), "cannot update " + path);
}

void ScanWriter::Remove(const char* image, const std::string& path) {
  if (dryRun_) return;
  ThrowIfError(database_->db().deleteDBRecord(Load(image)), "cannot remove " + path);
}
