// ScanDatabase: one scan database as the tool opens it.
//
// Opening checks what the library would not: a read command never creates a
// database, so a missing directory or a directory without WzScanDB.dat is a
// ToolError (kExitNotFound) before the library is asked. kReadOnly opens the
// files for reading only (WzScanDB::openReadOnly): nothing in the directory
// changes, and read permission is all it needs. The engine's refusals become
// one-line ToolErrors too: files of another record type (schema mismatch) and
// files held open by another process ("in use", kExitRefused).
//
// The database is closed when the object goes (errors ignored) or by Close()
// (errors thrown). Not thread-safe: one thread uses one ScanDatabase.
#pragma once

#include <string>

#include "RecordTypes.h"
#include "ToolError.h"
#include "WzScanDB/WzScanDB.h"

// The engine refused the files: they hold records of another type.
class WrongRecordType : public ToolError {
 public:
  explicit WrongRecordType(const std::string& message) : ToolError(kExitRefused, message) {}
};

// The engine refused the files: another process holds them open.
class DatabaseInUse : public ToolError {
 public:
  explicit DatabaseInUse(const std::string& message) : ToolError(kExitRefused, message) {}
};

class ScanDatabase {
 public:
  enum class Mode {
    kExisting,  // the database files must exist
    kCreate,    // create the directory and the files when missing
    kReadOnly,  // the database files must exist; open them for reading only
    kCheckPages,  // as kReadOnly, every page of both table files checked first
  };

  ScanDatabase(const std::string& directory, RecordType type, Mode mode);
  ~ScanDatabase();
  ScanDatabase(const ScanDatabase&) = delete;
  ScanDatabase& operator=(const ScanDatabase&) = delete;

  WzScanDB& db() { return *db_; }
  RecordType type() const { return type_; }
  bool readOnly() const { return readOnly_; }
  // Key bytes shared by the children of one folder on the parent index.
  int childKeyPrefix() const { return childKeyPrefix_; }
  const std::string& directory() const { return directory_; }
  // A new empty record of the database's type.
  WzScanDBRecordBasePtr NewRecord() const { return prototype_->Clone(); }

  // Looks `probe` up on its key; returns the stored record or null.
  WzScanDBRecordBasePtr Lookup(const WzScanDBRecordBasePtr& probe);
  // The stored record of the entry at `path` (made absolute and lexically
  // normalised). Throws kExitNotFound when the database has no such entry.
  WzScanDBRecordBasePtr FindPath(const std::string& path);

  void Close();

 private:
  std::string directory_;
  RecordType type_;
  WzScanDBRecordBasePtr prototype_;
  WzScanDBPtr db_;
  bool open_ = false;
  bool readOnly_ = false;
  int childKeyPrefix_ = 0;
};

// Throws kExitNotFound unless `directory` is a directory holding WzScanDB.dat.
void RequireDatabaseFiles(const std::string& directory);

// `path` made absolute against the working directory, with ".", ".." and
// repeated or trailing separators resolved lexically (no file-system access):
// the form in which scans store paths.
std::string NormalizeEntryPath(const std::string& path);
