// The generic record accessors: parent GUID text, status structure, GUID
// text.
#include <cstring>

#include "ExportsTestSupport.h"

namespace exportstest {
namespace {

WzScanDBRecordPtr GenericRecord(const std::string& path) {
  WzScanDBRecordPtr record;
  std::string text = path;
  CreateGlusterRecordObject(record, text, false, 0);
  return record;
}

TEST_F(ExportsTest, AccessorsFormatIdentifiersAndCopyTheStatus) {
  WzScanDBRecordPtr file = GenericRecord("/data/file");
  WzScanDBRecordPtr folder = GenericRecord("/data");

  std::string parentText = "left over";
  WzScanDBGetParentGUID(file, parentText);
  std::string folderText = "left over";
  WzScanDBGetGUIDString(folder->getGUID(), folderText);
  EXPECT_EQ(folderText, parentText);  // the parent's identifier is the folder's
  EXPECT_EQ(WzScanDBKeyGUID("/data").toString(), folderText);
  EXPECT_EQ(34u, folderText.size());
  EXPECT_EQ("0x", folderText.substr(0, 2));

  // The root has no parent: the null identifier.
  std::string rootParent = "left over";
  WzScanDBGetParentGUID(GenericRecord("/"), rootParent);
  EXPECT_EQ("0x00000000000000000000000000000000", rootParent);
  std::string nullText;
  WzScanDBGetGUIDString(WzScanDBKeyGUID(), nullText);
  EXPECT_EQ(rootParent, nullText);

  // The whole status structure is copied, every byte of it.
  struct stat written;
  unsigned char* raw = reinterpret_cast<unsigned char*>(&written);
  for (size_t i = 0; i < sizeof written; ++i) raw[i] = static_cast<unsigned char>(i * 7 + 1);
  std::memcpy(static_cast<char*>(file->getStructure()) + 32, &written, sizeof written);
  struct stat read;
  std::memset(&read, 0xEE, sizeof read);
  WzScanDBGetStatData(file, read);
  EXPECT_EQ(0, std::memcmp(&written, &read, sizeof read));
}

}  // namespace
}  // namespace exportstest
