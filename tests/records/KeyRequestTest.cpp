// Key-building requests: buffer sizes, the own-key request, and the children
// start key of a folder compared as the bytes the engine would build.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "WzScanDB/records/BackupTimeRecord.h"
#include "WzScanDB/records/WzScanDBLustreRecord.h"
#include "WzScanDB/records/WzScanDBRecord.h"

namespace {

typedef std::vector<unsigned char> Key;

// The key of `request` as concatenated segment bytes: segment i contributes
// segmentSize bytes from segmentData[i]. `schema` must be initialized.
Key KeyBytes(WzScanDBRecordBase& schema, const SPrepareIndexKeyStructure& request) {
  SIndices index = schema.getIndexInformation(request.indexNumber);
  EXPECT_EQ(request.numSegments, index.numSegments);
  Key key;
  for (int i = 0; i < request.numSegments; ++i) {
    SSegments segment =
        schema.getSegmentInformation(index.segmentNumber + request.segmentNumbers[i]);
    const unsigned char* data = static_cast<const unsigned char*>(request.segmentData[i]);
    key.insert(key.end(), data, data + segment.segmentSize);
  }
  EXPECT_EQ(static_cast<int>(key.size()), index.keyLength);
  return key;
}

void InitSchema(WzScanDBRecordBase& r) {
  r.initializeFieldInformation();
  r.initializeIndexInformation();
  r.initializeSegmentInformation();
}

bool SameRequest(const SPrepareIndexKeyStructure& a, const SPrepareIndexKeyStructure& b) {
  return a.indexNumber == b.indexNumber && a.segmentNumbers == b.segmentNumbers &&
         a.segmentModes == b.segmentModes && a.segmentData == b.segmentData &&
         a.segmentExtra == b.segmentExtra && a.keyBufferSize == b.keyBufferSize &&
         a.finishMode == b.finishMode && a.numSegments == b.numSegments;
}

void ExpectRequestShapes(WzScanDBRecordBase& r) {
  InitSchema(r);
  for (int i = 0; i < r.numIndices(); ++i) {
    SPrepareIndexKeyStructure request = r.prepareIndexKey(i);
    SIndices index = r.getIndexInformation(i);
    EXPECT_EQ(request.indexNumber, i);
    EXPECT_EQ(request.keyBufferSize, index.keyLength + 32) << index.name;
    EXPECT_EQ(request.numSegments, index.numSegments);
    EXPECT_EQ(request.segmentModes, std::vector<int>(index.numSegments, 0));
    EXPECT_TRUE(request.segmentExtra.empty());
    EXPECT_EQ(request.finishMode, 0);
    const char* image = static_cast<const char*>(r.getStructure());
    for (int s = 0; s < request.numSegments; ++s) {
      EXPECT_EQ(request.segmentNumbers[s], s);
      // Each segment starts at its field's first byte inside this record.
      SFields field = r.getFieldInformation(r.getSegmentInformation(index.segmentNumber + s).fieldNumber);
      EXPECT_EQ(request.segmentData[s], image + field.offset) << index.name << " segment " << s;
    }
  }
  EXPECT_TRUE(SameRequest(r.prepareIndexKeyFromKey(), r.prepareIndexKey(r.keyIndex())));
  SPrepareIndexKeyStructure unknown = r.prepareIndexKey(7);
  EXPECT_EQ(unknown.numSegments, 0);
  EXPECT_TRUE(unknown.segmentData.empty());
}

TEST(KeyRequest, BufferSizesSegmentsAndOwnKeyOfEveryType) {
  WzScanDBRecord generic("/a/b");
  ExpectRequestShapes(generic);
  EXPECT_EQ(generic.prepareIndexKey(0).keyBufferSize, 48);
  EXPECT_EQ(generic.prepareIndexKey(1).keyBufferSize, 104);

  LustreAPI::CLustreFIDPtr fid(new LustreAPI::CLustreFID(0x200000400, 0x1a, 0));
  LustreAPI::CLustreFIDPtr parent(new LustreAPI::CLustreFID(0x200000400, 0x2, 0));
  WzScanDBLustreRecord lustre(fid, parent, "b", false, 0);
  ExpectRequestShapes(lustre);
  EXPECT_EQ(lustre.prepareIndexKey(0).keyBufferSize, 56);
  EXPECT_EQ(lustre.prepareIndexKey(1).keyBufferSize, 112);

  CBackupTimeRecord backup(5, 7);
  ExpectRequestShapes(backup);
  EXPECT_EQ(backup.prepareIndexKey(0).keyBufferSize, 40);
  SPrepareIndexKeyStructure none = backup.prepareIndexKeyFromParent();
  EXPECT_EQ(none.numSegments, 0);
  EXPECT_TRUE(none.segmentData.empty());
}

// For a folder F: start(F) <= key1(child) for every child, start(F) >
// key1(r) for every r whose parent part sorts below F's own identifier, and
// start(F) < key1(r) whenever r's parent part sorts above it.
template <class MakeChild>
void ExpectChildrenStartKey(WzScanDBRecordBase& folder, const std::vector<WzScanDBRecordBasePtr>& others,
                            int parentBytes, MakeChild makeChild) {
  InitSchema(folder);
  SPrepareIndexKeyStructure start = folder.prepareIndexKeyFromParent();
  EXPECT_EQ(start.indexNumber, folder.parentIndex());
  EXPECT_EQ(start.keyBufferSize, folder.getIndexInformation(1).keyLength + 32);
  EXPECT_EQ(start.segmentData[0], folder.prepareIndexKey(0).segmentData[0]);
  Key startKey = KeyBytes(folder, start);
  EXPECT_TRUE(std::all_of(startKey.begin() + parentBytes, startKey.end(),
                          [](unsigned char b) { return b == 0; }));

  for (const char* name : {"a", "A", "\x01", "zzz", "a-name-longer-than-the-fifty-six-byte-name-segment-of-the-key"}) {
    WzScanDBRecordBasePtr child = makeChild(name);
    ASSERT_TRUE(child->checkParent(WzScanDBRecordBasePtr(folder.Clone())));
    Key childKey = KeyBytes(folder, child->prepareIndexKey(1));
    EXPECT_LT(startKey, childKey) << name;
    EXPECT_TRUE(std::equal(startKey.begin(), startKey.begin() + parentBytes, childKey.begin()));
  }
  int below = 0, above = 0;
  for (const WzScanDBRecordBasePtr& r : others) {
    Key key = KeyBytes(folder, r->prepareIndexKey(1));
    int order = std::memcmp(key.data(), startKey.data(), parentBytes);
    if (order < 0) {
      ++below;
      EXPECT_LT(key, startKey) << r->toString();
    } else if (order > 0) {
      ++above;
      EXPECT_GT(key, startKey) << r->toString();
    }
  }
  EXPECT_GT(below, 0);
  EXPECT_GT(above, 0);
}

TEST(KeyRequest, ChildrenStartKeyOfAGenericFolder) {
  WzScanDBRecord folder("/data/folder");
  std::vector<WzScanDBRecordBasePtr> others;
  for (int i = 0; i < 200; ++i)
    others.push_back(WzScanDBRecordBasePtr(new WzScanDBRecord("/p" + std::to_string(i) + "/x")));
  ExpectChildrenStartKey(folder, others, 16, [](const char* name) {
    return WzScanDBRecordBasePtr(new WzScanDBRecord(std::string("/data/folder/") + name));
  });
}

TEST(KeyRequest, ChildrenStartKeyOfALustreFolder) {
  using LustreAPI::CLustreFID;
  using LustreAPI::CLustreFIDPtr;
  CLustreFIDPtr folderFID(new CLustreFID(0x200000400, 0x1a, 0));
  WzScanDBLustreRecord folder(folderFID, CLustreFIDPtr(new CLustreFID(0x200000400, 1, 0)), "f",
                              true, 0);
  std::vector<WzScanDBRecordBasePtr> others;
  // Parents around the folder's FID in every component (the key holds the
  // little-endian bytes after a zero header word).
  const CLustreFID parents[] = {{0x200000400, 0x19, 0}, {0x200000400, 0x1b, 0},
                                {0x200000400, 0x1a, 1}, {0x1ff, 0x1a, 0},
                                {0x200000401, 0, 0},    {0, 0, 0}};
  for (const CLustreFID& p : parents)
    others.push_back(WzScanDBRecordBasePtr(
        new WzScanDBLustreRecord(CLustreFIDPtr(new CLustreFID(9, 9, 9)), CLustreFIDPtr(new CLustreFID(p)),
                                 "", false, 0)));
  ExpectChildrenStartKey(folder, others, 24, [&](const char* name) {
    return WzScanDBRecordBasePtr(new WzScanDBLustreRecord(
        CLustreFIDPtr(new CLustreFID(0x300000000, 5, 0)), folderFID, name, false, 0));
  });
}

TEST(KeyRequest, NamesSharingTheKeyPrefixAreToldApartOnlyByCheckEqual) {
  const std::string prefix(56, 'n');
  WzScanDBRecordBasePtr a(new WzScanDBRecord("/dir/" + prefix + "-first"));
  WzScanDBRecordBasePtr b(new WzScanDBRecord("/dir/" + prefix + "-second"));
  WzScanDBRecordBasePtr a2(new WzScanDBRecord("/dir/" + prefix + "-first"));
  InitSchema(*a);
  EXPECT_EQ(KeyBytes(*a, a->prepareIndexKey(1)), KeyBytes(*a, b->prepareIndexKey(1)));
  EXPECT_FALSE(a->checkEqualOnIndex(b, 1));
  EXPECT_TRUE(a->checkEqualOnIndex(a2, 1));
  EXPECT_TRUE(a->checkEqualOnIndex(a2, 0));
  EXPECT_FALSE(a->checkEqualOnIndex(b, 0));
  EXPECT_FALSE(a->checkEqualOnIndex(a2, 2));

  using LustreAPI::CLustreFID;
  using LustreAPI::CLustreFIDPtr;
  CLustreFIDPtr dir(new CLustreFID(0x200000400, 3, 0));
  WzScanDBRecordBasePtr la(new WzScanDBLustreRecord(CLustreFIDPtr(new CLustreFID(1, 1, 0)), dir,
                                                    prefix + "-first", false, 0));
  WzScanDBRecordBasePtr lb(new WzScanDBLustreRecord(CLustreFIDPtr(new CLustreFID(1, 2, 0)), dir,
                                                    prefix + "-second", false, 0));
  InitSchema(*la);
  EXPECT_EQ(KeyBytes(*la, la->prepareIndexKey(1)), KeyBytes(*la, lb->prepareIndexKey(1)));
  EXPECT_FALSE(la->checkEqualOnIndex(lb, 1));
  EXPECT_TRUE(la->checkEqualOnIndex(la->Clone(), 1));
  EXPECT_FALSE(la->checkEqualOnIndex(lb, 0));
  EXPECT_FALSE(la->checkEqualOnIndex(la->Clone(), 5));
}

}  // namespace
