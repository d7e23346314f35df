// Key-building requests: buffer sizes, the own-key request, and the children
// start key of a folder compared as the bytes the engine would build.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "RecordTestSupport.h"
#include "WzScanDB/records/BackupTimeRecord.h"
#include "WzScanDB/records/WzScanDBLustreRecord.h"
#include "WzScanDB/records/WzScanDBRecord.h"

namespace {

using LustreAPI::CLustreFID;
using LustreAPI::CLustreFIDPtr;
typedef std::vector<unsigned char> Key;

// The key of `request` as concatenated segment bytes: segment i contributes
// segmentSize bytes from segmentData[i]. `schema` must be initialized.
Key KeyBytes(WzScanDBRecordBase& schema, const SPrepareIndexKeyStructure& request) {
  SIndices index = schema.getIndexInformation(request.indexNumber);
  EXPECT_EQ(request.numSegments, index.numSegments);
  Key key;
  for (int i = 0; i < request.numSegments; ++i) {
    SSegments segment = schema.getSegmentInformation(index.segmentNumber + request.segmentNumbers[i]);
    const unsigned char* data = static_cast<const unsigned char*>(request.segmentData[i]);
    key.insert(key.end(), data, data + segment.segmentSize);
  }
  EXPECT_EQ(static_cast<int>(key.size()), index.keyLength);
  return key;
}

WzScanDBRecordBasePtr Lustre(const CLustreFID& fid, const CLustreFID& parent, const std::string& name) {
  return WzScanDBRecordBasePtr(new WzScanDBLustreRecord(CLustreFIDPtr(new CLustreFID(fid)),
                                                        CLustreFIDPtr(new CLustreFID(parent)), name, false, 0));
}

TEST(KeyRequest, BufferSizesSegmentsAndOwnKeyOfEveryType) {
  WzScanDBRecord generic("/a/b");
  CBackupTimeRecord backup(5, 7);
  WzScanDBRecordBasePtr lustre = Lustre({0x200000400, 0x1a, 0}, {0x200000400, 0x2, 0}, "b");
  const std::pair<WzScanDBRecordBase*, std::vector<int>> rows[] = {
      {&generic, {48, 104}}, {lustre.get(), {56, 112}}, {&backup, {40}}};
  for (const auto& [r, bufferSizes] : rows) {
    InitSchema(*r);
    ASSERT_EQ(r->numIndices(), static_cast<int>(bufferSizes.size()));
    const char* image = static_cast<const char*>(r->getStructure());
    for (int i = 0; i < r->numIndices(); ++i) {
      SPrepareIndexKeyStructure request = r->prepareIndexKey(i);
      SIndices index = r->getIndexInformation(i);
      SCOPED_TRACE(index.name);
      EXPECT_EQ(request.indexNumber, i);
      EXPECT_EQ(request.keyBufferSize, index.keyLength + 32);
      EXPECT_EQ(request.keyBufferSize, bufferSizes[i]);
      EXPECT_EQ(request.numSegments, index.numSegments);
      EXPECT_EQ(request.segmentModes, std::vector<int>(index.numSegments, 0));
      EXPECT_TRUE(request.segmentExtra.empty());
      EXPECT_EQ(request.finishMode, 0);
      for (int s = 0; s < request.numSegments; ++s) {
        EXPECT_EQ(request.segmentNumbers[s], s);
        // Each segment starts at its field's first byte inside this record.
        SFields field = r->getFieldInformation(r->getSegmentInformation(index.segmentNumber + s).fieldNumber);
        EXPECT_EQ(request.segmentData[s], image + field.offset) << "segment " << s;
      }
    }
    SPrepareIndexKeyStructure own = r->prepareIndexKeyFromKey(), key = r->prepareIndexKey(r->keyIndex());
    EXPECT_TRUE(own.indexNumber == key.indexNumber && own.segmentNumbers == key.segmentNumbers &&
                own.segmentModes == key.segmentModes && own.segmentData == key.segmentData &&
                own.segmentExtra == key.segmentExtra && own.keyBufferSize == key.keyBufferSize &&
                own.finishMode == key.finishMode && own.numSegments == key.numSegments);
    EXPECT_EQ(r->prepareIndexKey(7).numSegments, 0);
    EXPECT_TRUE(r->prepareIndexKey(7).segmentData.empty());
  }
  EXPECT_EQ(backup.prepareIndexKeyFromParent().numSegments, 0);
  EXPECT_TRUE(backup.prepareIndexKeyFromParent().segmentData.empty());
}

// For a folder F: start(F) < key1(child) for every child, start(F) > key1(r)
// for every r whose parent part sorts below F's own identifier, and
// start(F) < key1(r) whenever r's parent part sorts above it.
void ExpectChildrenStartKey(WzScanDBRecordBase& folder, const std::vector<WzScanDBRecordBasePtr>& others,
                            int parentBytes, const std::function<WzScanDBRecordBasePtr(const char*)>& makeChild) {
  InitSchema(folder);
  SPrepareIndexKeyStructure start = folder.prepareIndexKeyFromParent();
  EXPECT_EQ(start.indexNumber, folder.parentIndex());
  EXPECT_EQ(start.keyBufferSize, folder.getIndexInformation(1).keyLength + 32);
  EXPECT_EQ(start.segmentData[0], folder.prepareIndexKey(0).segmentData[0]);
  Key startKey = KeyBytes(folder, start);
  EXPECT_TRUE(std::all_of(startKey.begin() + parentBytes, startKey.end(), [](unsigned char b) { return b == 0; }));

  for (const char* name :
       {"a", "A", "\x01", "zzz", "a-name-longer-than-the-fifty-six-byte-name-segment-of-the-key"}) {
    WzScanDBRecordBasePtr child = makeChild(name);
    ASSERT_TRUE(child->checkParent(folder.Clone()));
    Key childKey = KeyBytes(folder, child->prepareIndexKey(1));
    EXPECT_LT(startKey, childKey) << name;
    EXPECT_TRUE(std::equal(startKey.begin(), startKey.begin() + parentBytes, childKey.begin()));
  }
  int below = 0, above = 0;
  for (const WzScanDBRecordBasePtr& r : others) {
    Key key = KeyBytes(folder, r->prepareIndexKey(1));
    int order = std::memcmp(key.data(), startKey.data(), parentBytes);
    below += order < 0;
    above += order > 0;
    EXPECT_TRUE(order < 0 ? key < startKey : order == 0 || key > startKey) << r->toString();
  }
  EXPECT_GT(below, 0);
  EXPECT_GT(above, 0);
}

TEST(KeyRequest, ChildrenStartKeySortsBetweenOtherParentsAndEveryChild) {
  WzScanDBRecord folder("/data/folder");
  std::vector<WzScanDBRecordBasePtr> others;
  for (int i = 0; i < 200; ++i)
    others.push_back(WzScanDBRecordBasePtr(new WzScanDBRecord("/p" + std::to_string(i) + "/x")));
  ExpectChildrenStartKey(folder, others, 16, [](const char* name) {
    return WzScanDBRecordBasePtr(new WzScanDBRecord(std::string("/data/folder/") + name));
  });

  const CLustreFID folderFID(0x200000400, 0x1a, 0);
  WzScanDBLustreRecord lustreFolder(CLustreFIDPtr(new CLustreFID(folderFID)),
                                    CLustreFIDPtr(new CLustreFID(0x200000400, 1, 0)), "f", true, 0);
  // Parents around the folder's FID in every component (the key holds the
  // little-endian bytes after a zero header word).
  others.clear();
  for (const CLustreFID& p : {CLustreFID(0x200000400, 0x19, 0), CLustreFID(0x200000400, 0x1b, 0),
                              CLustreFID(0x200000400, 0x1a, 1), CLustreFID(0x1ff, 0x1a, 0),
                              CLustreFID(0x200000401, 0, 0), CLustreFID(0, 0, 0)})
    others.push_back(Lustre({9, 9, 9}, p, ""));
  ExpectChildrenStartKey(lustreFolder, others, 24,
                         [&](const char* name) { return Lustre({0x300000000, 5, 0}, folderFID, name); });
}

}  // namespace
