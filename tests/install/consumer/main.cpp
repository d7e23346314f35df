// A small program built against the installed library alone: makes a
// generic record through the exported factory and prints its GUID, then
// creates a database in the directory it is given, records a folder and a
// file, and finds the file again after opening the database read-only.
#include <iostream>
#include <string>

#include <boost/make_shared.hpp>

#include "WzScanDB/WzScanDB.h"
#include "WzScanDB/WzScanDBExports.h"
#include "WzScanDB/records/WzScanDBRecord.h"

int main(int argc, char** argv) {
  if (argc != 2) return 1;
  const std::string directory = argv[1];
  WzScanDBRecordPtr record;
  std::string path = "/srv/data/file.txt";
  CreateGlusterRecordObject(record, path, false, 7);
  if (!record || GetGlusterRecordRefTime(record) != 7) return 2;
  std::string guid;
  WzScanDBGetGUIDString(WzScanDBKeyGUID(path), guid);
  std::cout << guid << "\n";

  {
    WzScanDBRecordPtr prototype;
    CreateGlusterEmptyRecordObject(prototype);
    WzScanDB db(prototype);
    if (db.initialize(directory).IsError()) return 3;
    db.setRefTime(7);
    if (db.addFolder(boost::make_shared<WzScanDBRecord>("/srv/data")).IsError()) return 4;
    if (db.addFile(record).IsError()) return 5;
    if (db.close().IsError()) return 6;
  }
  WzScanDBRecordPtr prototype;
  CreateGlusterEmptyRecordObject(prototype);
  WzScanDB db(prototype);
  if (db.openReadOnly(directory).IsError()) return 7;
  WzScanDBRecordBasePtr stored = record->Clone();
  bool found = false;
  if (db.checkDBRecord(record, stored, found).IsError() || !found) return 8;
  if (stored->getName() != "file.txt") return 9;
  std::cout << "found " << path << "\n";
  return db.close().IsError() ? 10 : 0;
}
