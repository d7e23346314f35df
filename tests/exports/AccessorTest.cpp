// The generic record accessors: parent GUID text, status structure, GUID
// text.
#include <cstring>

#include "ExportsTestSupport.h"

namespace exportstest {
namespace {

TEST_F(ExportsTest, AccessorsFormatIdentifiersAndCopyTheStatus) {
  auto record = [](const char* path) { return boost::static_pointer_cast<WzScanDBRecord>(Generic(path)); };
  WzScanDBRecordPtr file = record("/data/file");
  std::string parentText = "left over", folderText = "left over";
  WzScanDBGetParentGUID(file, parentText);
  WzScanDBGetGUIDString(record("/data")->getGUID(), folderText);
  EXPECT_EQ(folderText, parentText);  // the parent's identifier is the folder's
  EXPECT_EQ(WzScanDBKeyGUID("/data").toString(), folderText);
  EXPECT_EQ(34u, folderText.size());
  EXPECT_EQ("0x", folderText.substr(0, 2));

  // The root has no parent: the null identifier.
  std::string rootParent = "left over", nullText;
  WzScanDBGetParentGUID(record("/"), rootParent);
  EXPECT_EQ("0x00000000000000000000000000000000", rootParent);
  WzScanDBGetGUIDString(WzScanDBKeyGUID(), nullText);
  EXPECT_EQ(rootParent, nullText);

  // The whole status structure is copied, every byte of it.
  struct stat written, read;
  unsigned char* raw = reinterpret_cast<unsigned char*>(&written);
  for (size_t i = 0; i < sizeof written; ++i) raw[i] = static_cast<unsigned char>(i * 7 + 1);
  std::memcpy(static_cast<char*>(file->getStructure()) + 32, &written, sizeof written);
  std::memset(&read, 0xEE, sizeof read);
  WzScanDBGetStatData(file, read);
  EXPECT_EQ(0, std::memcmp(&written, &read, sizeof read));
}

}  // namespace
}  // namespace exportstest
