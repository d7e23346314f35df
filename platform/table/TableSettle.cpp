// settle(): brings the files of a table that was not closed cleanly to the
// state a clean close leaves, without knowing its schema beforehand.
#include <sys/stat.h>

#include "TableFormat.h"
#include "TableHeaders.h"
#include "TableImpl.h"

using namespace wztable;

int TCtreeTable::settle(const char* name) {
  if (!name || !*name) return TBL_BAD_ARGUMENT;
  const std::string base = name;
  struct stat st;
  if (::lstat((base + ".log").c_str(), &st) != 0) return TBL_OK;
  // The schema is the one the data file records; open() then checks every
  // page, replays the log and checkpoints, and close() removes the log.
  uint8_t id[16];
  std::string schema;
  int status = readFileTableId(base + ".dat", kDataMagic, id, &schema);
  if (status != TBL_OK) return status;
  TCtreeTable table;
  {
    std::lock_guard<std::recursive_mutex> lock(table.impl_->mutex);
    status = table.impl_->schema.parse(schema);
    table.impl_->name = base;
  }
  if (status == TBL_OK) status = table.open(WZIndexing::kAccessReadWrite);
  if (status == TBL_OK) status = table.close();
  return status;
}
