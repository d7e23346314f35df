#include "ScanDatabase.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "ToolError.h"
#include "WzScanDB/records/WzScanDBLustreRecord.h"
#include "table/TableStatus.h"

namespace {

bool IsDirectory(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

}  // namespace

void RequireDatabaseFiles(const std::string& directory) {
  if (directory.empty()) throw ToolError(kExitNotFound, "the database directory is empty");
  struct stat st;
  if (::stat(directory.c_str(), &st) != 0)
    throw ToolError(kExitNotFound, "database directory " + directory + " does not exist");
  if (!S_ISDIR(st.st_mode))
    throw ToolError(kExitNotFound, "database directory " + directory + " is not a directory");
  if (::stat((directory + "/WzScanDB.dat").c_str(), &st) != 0)
    throw ToolError(kExitNotFound, "no scan database in " + directory + " (WzScanDB.dat is missing)");
}

std::string NormalizeEntryPath(const std::string& path) {
  std::filesystem::path p(path);
  if (p.is_relative()) p = std::filesystem::current_path() / p;
  std::string text = p.lexically_normal().string();
  while (text.size() > 1 && text.back() == '/') text.pop_back();
  return text;
}

ScanDatabase::ScanDatabase(const std::string& directory, RecordType type, Mode mode)
    : directory_(directory), type_(type), prototype_(MakePrototype(type)) {
  readOnly_ = mode == Mode::kReadOnly || mode == Mode::kCheckPages;
  if (mode != Mode::kCreate) {
    RequireDatabaseFiles(directory);
  } else {
    std::error_code ec;
    std::filesystem::create_directories(directory, ec);
    if (ec || !IsDirectory(directory))
      throw ToolError(kExitFailed, "cannot create database directory " + directory + ": " +
                                       (ec ? ec.message() : std::string("not a directory")));
  }
  db_.reset(new WzScanDB(prototype_->Clone()));
  if (mode == Mode::kCheckPages) db_->setVerifyOnOpen(true);
  CKoError error = readOnly_ ? db_->openReadOnly(directory_) : db_->initialize(directory_);
  if (error.IsError()) {
    db_->close();
    if (error.GetKind() == EKoErrorKind::kInt && error.GetCode() == TBL_IN_USE)
      throw DatabaseInUse("database at " + directory_ + " is in use by another process (" +
                          ErrorLine(error) + ")");
    if (error.GetKind() == EKoErrorKind::kInt && error.GetCode() == TBL_ACCESS_DENIED)
      throw ToolError(kExitFailed, "no permission to open the database at " + directory_ +
                                       (readOnly_ ? "" : " for writing") + " (" + ErrorLine(error) + ")");
    if (error.GetKind() == EKoErrorKind::kInt && error.GetCode() == TBL_SCHEMA_MISMATCH)
      throw WrongRecordType("database at " + directory_ + " is not a " + RecordTypeName(type_) +
                            " scan database (" + ErrorLine(error) + ")");
    throw ToolError(kExitFailed, "cannot open database at " + directory_ + ": " + ErrorLine(error));
  }
  open_ = true;

  if (HasTree(type_)) {
    // The parent index's key is the parent identifier followed by the name.
    WzScanDBRecordBasePtr described = prototype_->Clone();
    described->initializeIndexInformation();
    described->initializeSegmentInformation();
    SIndices index = described->getIndexInformation(described->parentIndex());
    SSegments name = described->getSegmentInformation(index.segmentNumber + index.numSegments - 1);
    childKeyPrefix_ = index.keyLength - name.segmentSize;
  }
}

ScanDatabase::~ScanDatabase() {
  if (open_) db_->close();
}

void ScanDatabase::Close() {
  if (!open_) return;
  open_ = false;
  ThrowIfError(db_->close(), "cannot close database at " + directory_);
}

WzScanDBRecordBasePtr ScanDatabase::Lookup(const WzScanDBRecordBasePtr& probe) {
  WzScanDBRecordBasePtr stored = probe->Clone();
  bool found = false;
  ThrowIfError(db_->checkDBRecord(probe, stored, found), "lookup failed in " + directory_);
  return found ? stored : WzScanDBRecordBasePtr();
}

WzScanDBRecordBasePtr ScanDatabase::FindPath(const std::string& path) {
  if (!HasTree(type_))
    throw ToolError(kExitNotFound, std::string("a ") + RecordTypeName(type_) +
                                       " database holds no paths");
  std::string normal = NormalizeEntryPath(path);
  WzScanDBRecordBasePtr probe = prototype_->MakeObject(normal);
  if (type_ == RecordType::kLustre &&
      static_cast<SLustreRecord*>(probe->getStructure())->FID.empty()) {
    // No FID: not an entry of a Lustre database, except "/" off Lustre,
    // which stands for the database's root.
    if (normal != "/")
      throw ToolError(kExitNotFound, normal + " is not in the database at " + directory_ +
                                         " (it has no Lustre FID)");
    probe = db_->getRoot();
  }
  WzScanDBRecordBasePtr stored = Lookup(probe);
  if (!stored) throw ToolError(kExitNotFound, normal + " is not in the database at " + directory_);
  return stored;
}
