// A tiny program built against the installed library: makes a generic record
// through the exported factory and prints its GUID and its text form.
#include <iostream>
#include <string>

#include "WzScanDB/WzScanDBExports.h"
#include "WzScanDB/records/WzScanDBRecord.h"

int main() {
  WzScanDBRecordPtr record;
  std::string path = "/srv/data/file.txt";
  CreateGlusterRecordObject(record, path, false, 7);
  if (!record) return 1;
  std::string guid;
  WzScanDBGetGUIDString(WzScanDBKeyGUID(path), guid);
  std::cout << guid << "\n" << record->toString() << "\n";
  return GetGlusterRecordRefTime(record) == 7 ? 0 : 2;
}
