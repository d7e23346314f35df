#include <cstdio>

#include "table/TCtreeTable.h"

const char* TCtreeTable::errToString(int status) {
  switch (status) {
    case TBL_OK: return "success";
    case TBL_NOT_FOUND: return "no record matches the key";
    case TBL_DUPLICATE_KEY: return "duplicate key on a unique index";
    case TBL_NO_CURRENT: return "no current record";
    case TBL_FILE_MISSING: return "table file missing";
    case TBL_FILE_EXISTS: return "table file already exists";
    case TBL_IN_USE: return "table in use by another process or table object";
    case TBL_NOT_OPEN: return "table not open";
    case TBL_ALREADY_OPEN: return "table already open";
    case TBL_SCHEMA_MISMATCH: return "table files hold another schema";
    case TBL_BAD_FORMAT: return "not a table file of this engine, or corrupt";
    case TBL_IO_ERROR: return "I/O error on a table file";
    case TBL_FILE_FULL: return "table file full (size limit reached or disk full)";
    case TBL_BAD_SCHEMA: return "invalid schema definition";
    case TBL_BAD_ARGUMENT: return "invalid argument";
    case TBL_NOT_SUPPORTED: return "operation not supported by this engine";
    case TBL_INDEX_SUSPENDED: return "indexing is suspended";
    case TBL_NOT_DEFINED: return "table schema not defined";
    case TBL_FILES_MISMATCH: return "data and index files belong to different tables";
    case TBL_READ_ONLY: return "table opened read-only";
    case TBL_ACCESS_DENIED:
      return "access denied: no permission on a table file or its directory, or a read-only file system";
    case TBL_NO_MEMORY: return "not enough memory or address space to map a table file";
    default: break;
  }
  // One buffer per thread: the text stays valid until this thread asks again.
  static thread_local char unknown[48];
  std::snprintf(unknown, sizeof unknown, "unknown table status %d", status);
  return unknown;
}
