// Status codes of the table engine. Every engine operation returns an int
// status: 0 success, 101 no record matches the key, and one code per other
// failure. TCtreeTable::errToString() gives each a readable text.
#pragma once

enum TableStatus : int {
  TBL_OK = 0,
  TBL_NOT_FOUND = 101,         // no record matches the key / end of the table
  TBL_DUPLICATE_KEY = 102,     // the key exists on a unique index
  TBL_NO_CURRENT = 103,        // no current record to modify, delete or move from
  TBL_FILE_MISSING = 104,      // a data or index file does not exist
  TBL_FILE_EXISTS = 105,       // create(): a data or index file already exists
  TBL_IN_USE = 106,            // another process or table object holds the files
  TBL_NOT_OPEN = 107,          // the table is not open
  TBL_ALREADY_OPEN = 108,      // schema definition, create or open on an open table
  TBL_SCHEMA_MISMATCH = 109,   // the files hold another schema than the registered one
  TBL_BAD_FORMAT = 110,        // not a table file of this engine, or corrupt
  TBL_IO_ERROR = 111,          // the system refused a read, write or sync
  TBL_FILE_FULL = 112,         // the file reached its size limit / the disk is full
  TBL_BAD_SCHEMA = 113,        // invalid schema definition (type, limit, segment)
  TBL_BAD_ARGUMENT = 114,      // a null buffer, an unknown index number, a bad key
  TBL_NOT_SUPPORTED = 115,     // an interactive or versioning hook this engine lacks
  TBL_INDEX_SUSPENDED = 116,   // an index read while indexing is suspended
  TBL_NOT_DEFINED = 117,       // create/open before the schema is complete
  TBL_FILES_MISMATCH = 118,    // the data and index files come from different tables
  TBL_READ_ONLY = 119,         // a write on a table opened read-only
  TBL_ACCESS_DENIED = 120,     // no permission on a table file or its directory, read-only file system
  TBL_NO_MEMORY = 121,         // no memory or address space to map a table file
};
