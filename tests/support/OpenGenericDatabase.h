// OpenGenericDatabase: a generic-record database on `directory`, created when
// missing, through the exported functions; the library's log is silenced.
// The initialize result is left in `err`.
#pragma once

#include <string>

#include "WzScanDB/WzScanDBExports.h"
#include "runtime/LogWriter.h"

inline WzScanDBPtr OpenGenericDatabase(const std::string& directory, CKoError& err) {
  g_ptrLogWriter->SetNone();
  WzScanDBRecordPtr prototype;
  CreateGlusterEmptyRecordObject(prototype);
  WzScanDBPtr db;
  CreateWzScanDBObject(db, prototype);
  std::string text = directory;
  WzScanDBObjectInitialize(db, text, err);
  return db;
}
