// The three record types as the table engine and callers see them: images
// and key bytes byte for byte, schema descriptors, the place of the record
// interface in the vtable; the path identifier, text forms, the lines a
// misuse writes, parent, equality and root tests, what copyStandardFields
// takes; and the Lustre FID value, its open-by-FID path and lookups. (The
// CSV of generic records and the fields of records made by the factories:
// tests/client; long names: tests/hostile; what renames keep:
// tests/tree_write.)
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "WzScanDB/WzHandle.h"
#include "WzScanDB/records/BackupTimeRecord.h"
#include "WzScanDB/records/WzScanDBLustreRecord.h"
#include "WzScanDB/records/WzScanDBRecord.h"
#include "lustre/GetFIDFromPath.h"
#include "lustre/PathLustre.h"
#include "runtime/FXString.h"
#include "support/LogAt.h"
#include "support/TempDir.h"

namespace {

using LustreAPI::CLustreFID;
using LustreAPI::lu_fid;
typedef WzScanDBRecordBasePtr Ptr;

// "<size>:" and then " @<offset> <hex>" for each run of non-zero bytes.
std::string Bytes(const void* data, size_t size) {
  const auto* b = static_cast<const unsigned char*>(data);
  std::string text = std::to_string(size) + ":";
  for (size_t i = 0; i < size; ++i)
    if (b[i]) text += (i && b[i - 1] ? std::string() : FXString::Format(" @%zu ", i)) + FXString::Format("%02x", b[i]);
  return text;
}
std::string Image(const Ptr& r) { return Bytes(r->getStructure(), r->recordSize()); }
std::string Repeat(const std::string& text, int times) { return times > 0 ? text + Repeat(text, times - 1) : ""; }
LustreAPI::CLustreFIDPtr Fid(uint64_t s, uint32_t o, uint32_t v = 0) {
  return LustreAPI::CLustreFIDPtr(new CLustreFID(s, o, v));
}
// Records of the three types, as the library hands them out. Lustre FIDs are
// (1, oid); a parent oid of 0 makes a root.
template <class R, class... Args>
Ptr Make(Args... args) {
  return WzMakeHandle<WzScanDBRecordBase>(new R(args...));
}
Ptr G(const std::string& p, bool dir = false, unsigned long long t = 0) { return Make<WzScanDBRecord>(p, dir, t); }
Ptr L(uint32_t oid, uint32_t parent, const std::string& name, bool isDir = false, unsigned long long time = 0) {
  return Make<WzScanDBLustreRecord>(Fid(1, oid), parent ? Fid(1, parent) : nullptr, name, isDir, time);
}
Ptr B(unsigned long long inode, unsigned long long ctime) { return Make<CBackupTimeRecord>(inode, ctime); }
// The FID (0x1122334455667788, 0xAABBCCDD, 7), a directory "a/b" below
// (0x200000400, 0x1a), reference time 0x100000003.
Ptr Lustre() {
  return Make<WzScanDBLustreRecord>(Fid(0x1122334455667788ULL, 0xAABBCCDD, 7), Fid(0x200000400, 0x1a),
                                    std::string("a/b"), true, 0x100000003ULL);
}
// A record of type R that read in `image` (all of it offered).
template <class R>
Ptr ReadIn(const void* image) {
  Ptr r = Make<R>();
  r->setStructure(const_cast<void*>(image));
  return r;
}
// Resolves the paths of a small fake Lustre tree; anything else is ENOENT.
struct FakeLustre {
  FakeLustre() {
    LustreAPI::SetFIDResolver([](const std::string& path, lu_fid& fid) {
      if (path != "/lustre/dir" && path != "/lustre/dir/file") return -ENOENT;
      return fid = {0x200000400ULL, path == "/lustre/dir" ? 0x1au : 0x1bu, 0}, 0;
    });
  }
  ~FakeLustre() { LustreAPI::ResetFIDResolver(); }
};

const std::string kMd5AB = "aee31d71a4dce5fe24481547cc863476", kMd5A = "0639767f3e9eaad729b54037a7e2abf5",
                  kMd5Root = "6666cd76f96956469e7be39d750cc7d9", kFid = "8877665544332211ddccbbaa07",
                  kLustre = "456: @8 " + kFid + " @33 04 @36 02 @40 1a @192 03 @196 01612f62";

// Generic image: guid @0, parent guid @16, status @32, reference time @176,
// flags @180, name @181. Lustre: FID @0 and parent FID @24 (each a zero
// header word and the lu_fid), status @48, reference time @192, flags @196,
// name @197. Backup time: inode @0, ctime @8, "0" @16. Every record the
// library makes may be dropped after an explicit delete.
TEST(RecordLayout, ImagesByteForByte) {
  FakeLustre lustre;
  LogAt log(0);
  std::vector<unsigned char> lustreImage(456, 0xFF);  // header words and padding are not taken over
  std::memcpy(&lustreImage[8], static_cast<char*>(Lustre()->getStructure()) + 8, 16);
  std::memcpy(&lustreImage[32], static_cast<char*>(Lustre()->getStructure()) + 32, 420);
  const std::pair<Ptr, std::string> rows[] = {
      {G("/a/b", true, 0x100000005ULL), "440: @0 " + kMd5AB + kMd5A + " @176 05 @180 0162"},
      {G("/a/b/"), "440: @0 f218dc3054693d47457e30c57b8b2425" + kMd5A + " @181 62"},
      {G("/"), "440: @0 " + kMd5Root},
      {ReadIn<WzScanDBRecord>(std::vector<unsigned char>(440, 0xAB).data()), "440: @0 " + Repeat("ab", 436)},
      {Lustre(), kLustre},
      {ReadIn<WzScanDBLustreRecord>(lustreImage.data()), kLustre},
      {Make<WzScanDBLustreRecord>(Fid(0x1122334455667788ULL, 0xAABBCCDD, 7)), "456: @8 " + kFid},
      {Make<WzScanDBLustreRecord>(), "456:"},
      {Lustre()->MakeParentObject(), "456: @9 04 @12 02 @16 1a"},
      {Make<WzScanDBLustreRecord>(std::string("/lustre/dir/file"), Fid(7, 8, 9), false, 1ULL),
       "456: @9 04 @12 02 @16 1b @32 07 @40 08 @44 09 @192 01 @197 66696c65"},
      {B(5, 7), "24: @0 05 @8 07 @16 30"},
      {ReadIn<CBackupTimeRecord>(B(~0ULL, 1)->getStructure()), "24: @0 ffffffffffffffff01 @16 30"}};
  for (const auto& [r, image] : rows) {
    EXPECT_EQ(Image(r), image);
    EXPECT_NE(boost::get_deleter<CWzHandleDeleter>(r), nullptr) << image;
  }
  EXPECT_TRUE(log->Entries().empty()) << "every FID was found";
  // (Names of 255 bytes and more: tests/hostile stores them byte for byte.)
}

// The key of `request` as the engine builds it: segment i contributes
// segmentSize bytes from segmentData[i].
std::string KeyBytes(const Ptr& r, const SPrepareIndexKeyStructure& request) {
  if (request.numSegments == 0) return "0:";
  const SIndices index = r->getIndexInformation(request.indexNumber);
  EXPECT_TRUE(request.keyBufferSize == index.keyLength + 32 && request.numSegments == index.numSegments);
  std::string key;
  for (int i = 0; i < request.numSegments; ++i) {
    EXPECT_EQ(request.segmentNumbers[i] * 100 + request.segmentModes[i] + request.finishMode, i * 100);
    const int size = r->getSegmentInformation(index.segmentNumber + request.segmentNumbers[i]).segmentSize;
    key.append(static_cast<const char*>(request.segmentData[i]), size);
  }
  EXPECT_EQ(static_cast<int>(key.size()), index.keyLength);
  return Bytes(key.data(), key.size());
}

// The descriptors as text: sizes, key and parent index, variable length;
// "name@offset type/length" per field; per index "name length type dup
// nullKey emptyChar numSegments first"; per segment "field/size/case".
// initialize runs twice: it must rebuild, not append.
std::string Schema(const Ptr& r) {
  for (int round = 0; round < 2; ++round)
    r->initializeFieldInformation(), r->initializeIndexInformation(), r->initializeSegmentInformation();
  std::string text = FXString::Format("%d %d %d %d %d", r->recordSize(), r->fixedRecordSize(), r->keyIndex(),
                                      r->parentIndex(), r->isVariableLength());
  for (int i = 0; i < r->numFields(); ++i) {
    SFields f = r->getFieldInformation(i);
    text += FXString::Format("|%s@%zu %d/%d", f.name.c_str(), size_t(f.offset), int(f.type), int(f.length));
  }
  for (int i = 0; i < r->numIndices(); ++i) {
    SIndices x = r->getIndexInformation(i);
    text +=
        FXString::Format("|%s %d %d %d %d %d %d %d", x.name.c_str(), int(x.keyLength), int(x.keyType),
                         int(x.duplicates), int(x.nullKey), int(x.emptyChar), int(x.numSegments), int(x.segmentNumber));
  }
  for (int i = 0; i < r->numSegments(); ++i) {
    SSegments g = r->getSegmentInformation(i);
    text += FXString::Format("|%d/%d/%d", int(g.fieldNumber), int(g.segmentSize), int(g.caseSensitive));
  }
  return text;
}

// The vtable slot of a virtual member function under the Itanium C++ ABI
// (its pointer holds 1 + 8 * slot).
template <class PMF>
long Slot(PMF pmf) {
  long raw;
  return std::memcpy(&raw, &pmf, sizeof raw), (raw - 1) / 8;
}

// Per record: the key of index 0 (also from the key alone), of index 1 and
// of the children's start (on the parent index); no key for other indexes.
TEST(RecordLayout, KeyBytesAndSchemaDescriptors) {
  const std::pair<Ptr, std::string> rows[] = {
      {G("/a/b"), "16: @0 " + kMd5AB + "|72: @0 " + kMd5A + "62|72: @0 " + kMd5AB},
      {Lustre(), "24: @8 " + kFid + "|80: @9 04 @12 02 @16 1a @24 612f62|80: @8 " + kFid},
      {B(5, 7), "8: @0 05|0:|0:"}};
  for (const auto& [r, keys] : rows) {
    Schema(r);  // the descriptors the requests are built from
    const SPrepareIndexKeyStructure children = r->prepareIndexKeyFromParent();
    EXPECT_EQ(
        KeyBytes(r, r->prepareIndexKey(0)) + "|" + KeyBytes(r, r->prepareIndexKey(1)) + "|" + KeyBytes(r, children),
        keys);
    EXPECT_EQ(KeyBytes(r, r->prepareIndexKeyFromKey()), KeyBytes(r, r->prepareIndexKey(0)));
    EXPECT_TRUE((!children.numSegments || children.indexNumber == r->parentIndex()) &&
                r->prepareIndexKey(7).numSegments == 0);
  }
  // The schema descriptors; the order of the interface's virtual operations
  // is part of the binary interface: after the destructor's two slots, the
  // first is in slot 2 and the 36th, the last, in slot 37.
  EXPECT_EQ(Slot(&WzScanDBRecordBase::initializeFieldInformation) * 100 + Slot(&WzScanDBRecordBase::toCSV), 237);
  Ptr generic = Make<WzScanDBRecord>();  // (its registration lines: tests/core)
  EXPECT_EQ(Schema(generic),
            "440 181 0 1 1|guid@0 128/16|parent_guid@16 128/16|stat_data@32 128/144|refTime@176 59/4|flags@180 24/1|"
            "sname@181 146/255|guid 16 0 0 0 0 1 0|parent_guid_and_sname 72 12 1 0 0 2 1|0/16/1|1/16/1|5/56/1");
  EXPECT_EQ(Schema(Make<WzScanDBLustreRecord>()),
            "456 197 0 1 1|FID@0 128/24|ParentFID@24 128/24|stat_data@48 128/144|refTime@192 59/4|flags@196 24/1|"
            "sname@197 146/255|FID 24 0 0 0 0 1 0|parent_FID_and_sname 80 12 1 0 0 2 1|0/24/1|1/24/1|5/56/1");
  EXPECT_EQ(Schema(Make<CBackupTimeRecord>()),
            "24 16 0 0 1|inode@0 239/8|ctime@8 239/8|dummy@16 146/4|inode 8 0 0 0 0 1 0|0/8/0");
  EXPECT_EQ(generic->Clone()->getFieldInformation(5).name, "sname") << "a copy carries the lists";
}

TEST(RecordBehaviour, PathIdentifierAndTextForms) {
  // The identifier is the MD5 of the path (RFC 1321 vectors, one longer than
  // a block), the null one for the empty path, also when assigned over a
  // generated one; its text reads each half as a little-endian number.
  std::string digests;
  for (const std::string& path :
       {std::string("a"), std::string("message digest"), Repeat("1234567890", 8), std::string("/"), std::string()}) {
    WzScanDBKeyGUID guid;
    guid.generate();
    guid = path;
    digests += Bytes(guid.data(), 16).substr(3) + (guid == WzScanDBKeyGUID(path) ? "|" : " (not as made)|");
  }
  WzScanDBKeyGUID guid;
  for (int i = 0; i < 16; ++i) guid.data()[i] = static_cast<unsigned char>(i == 0 ? 0xAB : i == 15 ? 0xCD : i);
  // clang-format off
  EXPECT_EQ(digests + guid.toString(),
            " @0 0cc175b9c0f1b6a831c399e269772661| @0 f96b697d7cb7938d525a2f31aaf161d0|"
            " @0 57edf4a22be3c955ac49da2e2107b67a| @0 " + kMd5Root + "||0x07060504030201ABCD0E0D0C0B0A0908");
  // clang-format on

  WzScanDBRecord generic("/a/b", true, 4294967295ULL);
  struct stat& status = static_cast<SRecordStructure*>(generic.getStructure())->stat_data;
  status.st_size = 0x100000005LL, status.st_mtim.tv_sec = 1700000001, status.st_ctim.tv_sec = 1700000002;  // 32 bits
  const std::string ab = "0xFEE5DCA4711DE3AE763486CC47154824", a = "0xD7AA9E3E7F763906F5ABE2A73740B529";
  // clang-format off
  EXPECT_EQ(generic.toString() + "|" + generic.toCSVHeader() + "|" + generic.toCSV() + "|" + B(~0ULL, 1)->toString() +
                "|" + Lustre()->toCSVHeader() + Lustre()->toCSV() + "|" + B(5, 7)->toCSVHeader() + B(5, 7)->toCSV(),
            "GUID : [" + ab + "] Parent GUID : [" + a + "] Name : [b] Directory : [yes] CTime : [1700000002] "
            "MTime : [1700000001] Size : [5] Update Time : [-1]|"
            "GUID,Parent GUID,Name,Directory,CTime,MTime,Size,Update Time|" +
            ab + "," + a + ",b,yes,1700000002,1700000001,5,-1|"
            "Inode : 18446744073709551615 , Ctime : 1|Not Supported|Not Supported");
  // clang-format on
}

TEST(RecordBehaviour, MisuseAndFailedLookupsWriteTheirLines) {
  FakeLustre fake;
  LogAt log(-1);
  const Ptr generic = G("/a/b"), lustre = L(2, 1, "n"), none;
  EXPECT_FALSE(generic->checkParent(lustre) || generic->checkEqualOnIndex(none, 0) || lustre->checkParent(generic) ||
               lustre->checkEqualOnIndex(none, 0) || B(5, 7)->checkEqualOnIndex(generic, 0));
  // The own FID's line names only the last component, the parent's the whole parent path.
  EXPECT_TRUE(WzScanDBLustreRecord("/elsewhere/deep/name", false, 0).getFID().empty() &&
              WzScanDBLustreRecord("/lustre/dir/missing").getFID().empty() &&
              WzScanDBLustreRecord("/lustre/dir/missing", Fid(1, 2), false, 0).getFID().empty());
  std::string written;
  for (const CLogEntry& entry : log->Entries())
    written += std::to_string(entry.level) + " " + entry.function + ": " + entry.message + "|";
  const std::string g = "-1 virtual bool WzScanDBRecord::", l = "-1 virtual bool WzScanDBLustreRecord::",
                    c = "-1 WzScanDBLustreRecord::WzScanDBLustreRecord(", fid = "Cannot convert path to FID for Path ",
                    path = "std::string, bool, long long unsigned int): " + fid;
  // clang-format off
  EXPECT_EQ(written,
      g + "checkParent(WzScanDBRecordBasePtr): The given record is nullptr or it is not of type WzScanDBRecord|" +
      g + "checkEqualOnIndex(WzScanDBRecordBasePtr, int): The given record is nullptr or is not of type "
          "WzScanDBRecord|" +
      l + "checkParent(WzScanDBRecordBasePtr): The given record is NULL or not of type WzScanDBLustreRecord\n|" +
      l + "checkEqualOnIndex(WzScanDBRecordBasePtr, int): The given record is NULL or not of the type "
          "WzScanDBLustreRecord\n|-1 virtual bool CBackupTimeRecord::checkEqualOnIndex(WzScanDBRecordBasePtr, int): "
          "The Given record is NULL or not of type CBackupTimeRecord|" +
      c + path + "name|" + c + path + "/elsewhere/deep|" + c + "const string&): " + fid + "missing|" +
      c + "std::string, LustreAPI::CLustreFIDPtr, bool, long long unsigned int): " + fid + "missing|");
  // clang-format on
}

// (Parents and equality on the key and parent indexes drive every lookup
// and listing of the tree suites, for generic and Lustre records alike.)
TEST(RecordBehaviour, ParentEqualityRootAndCopyStandardFields) {
  const Ptr file = G("/a/b/c"), lustre = L(3, 2, "c"), backup = B(5, 7);
  EXPECT_TRUE(G("/x")->checkParent(G("/q/r")->getRoot()) && lustre->checkEqualOnIndex(L(9, 2, "c", true, 1), 1) &&
              backup->checkEqualOnIndex(B(5, 8), 0) && G("/")->isRoot() && WzScanDBRecord().isRoot() &&
              L(1, 0, "top")->isRoot() && B(0, 0)->isRoot());
  EXPECT_FALSE(file->checkEqualOnIndex(file, 2) || lustre->checkEqualOnIndex(lustre, 2) ||
               backup->checkEqualOnIndex(backup, 1) || lustre->checkEqualOnIndex(L(3, 4, "c"), 1) ||
               backup->checkEqualOnIndex(B(6, 7), 0) || backup->checkParent(B(0, 0)) || G("/a")->isRoot() ||
               lustre->isRoot() || backup->isRoot() || backup->isDir());

  // copyStandardFields takes only its own type. (What a rename keeps of each
  // record type, through copyStandardFields and MakeObject: tests/tree_write.)
  Ptr generic = G("/dst/other"), to = L(3, 1, "t", false, 8), flat = B(5, 7);
  const std::string before = Image(generic) + Image(to);
  const CKoError error = generic->copyStandardFields(L(2, 1, "s", true, 4));
  EXPECT_EQ(FXString::Format("%lld %s: ", static_cast<long long>(error.GetCode()),
                             error.GetFrames().at(0).location.function) +
                error.GetTopMessage(),
            "1 virtual CKoError WzScanDBRecord::copyStandardFields(WzScanDBRecordBasePtr): The given record is not of "
            "the type WzScanDBRecord");
  EXPECT_TRUE(to->copyStandardFields(G("/g", true, 1)).IsSuccess());
  EXPECT_EQ(Image(generic) + Image(to), before);
  // Backup-time records copy nothing, ignore flags and reference time (the
  // ctime), and make no tree.
  flat->setFlags(0xFF);
  flat->setRefTime(99);
  EXPECT_TRUE(flat->copyStandardFields(B(1, 2)).IsSuccess() && !flat->MakeObject("/x") && !flat->MakeParentObject() &&
              flat->getFlags() == 0 && flat->getRefTime() == 7);
  EXPECT_EQ(Image(flat), "24: @0 05 @8 07 @16 30");
}

TEST(LustreFID, ValuesThePathByFIDAndLookupsOffLustreOrThroughAResolver) {
  EXPECT_TRUE(CLustreFID().empty() && !CLustreFID(0, 0, 1).empty() && !CLustreFID(0, 1, 0).empty() &&
              !CLustreFID(1, 0, 0).empty());
  EXPECT_EQ(CLustreFID(0xABCDEF0123456789ULL, 0xFFFFFFFF, 0x10).toString(), "[0xabcdef0123456789:0xffffffff:0x10]");
  // (Assignment writes the lu_fid, not the header word: the Lustre image
  // read in above.)
  // The open-by-FID path, cut to the buffer.
  lu_fid lu{0x200000400ULL, 0x1a, 0x2};
  char buffer[128], small[12];
  EXPECT_EQ(LustreAPI::path_lustre(buffer, sizeof buffer, "/mnt/lustre", &lu), 44);
  EXPECT_EQ(LustreAPI::path_lustre(small, sizeof small, "/mnt/lustre", &lu), 44);
  EXPECT_EQ(std::string(buffer) + "|" + small, "/mnt/lustre/.lustre/fid/0x200000400:0x1a:0x2|/mnt/lustre");

  // Lookups off Lustre and through a resolver standing in.
  TempDir dir;
  std::ofstream(dir / "plain") << "x";
  ASSERT_TRUE(::symlink((dir / "plain").c_str(), (dir / "link").c_str()) == 0 &&
              ::mkfifo((dir / "fifo").c_str(), 0600) == 0);
  // A FIFO without a writer must not block the lookup; a final link is not
  // followed; a failing lookup leaves the FID as it was.
  CLustreFID found(1, 2, 3);
  std::string statuses;
  for (const std::string& path : {dir / "plain", dir / "missing", dir / "link", dir / "fifo"})
    statuses += std::to_string(LustreAPI::GetFIDFromPath(path, found)) + " ";
  EXPECT_EQ(statuses, FXString::Format("%d %d %d %d ", -ENOTTY, -ENOENT, -ELOOP, -ENOTTY));
  // A resolver stands in until reset; a positive failure is made negative
  // and what a failing resolver wrote is not kept.
  LustreAPI::SetFIDResolver([](const std::string& path, lu_fid& fid) {
    return fid = lu_fid{9, 7, 0}, path == "/lustre/a" ? 0 : EIO;
  });
  EXPECT_TRUE(LustreAPI::GetFIDFromPath("/lustre/b", found) == -EIO && found == CLustreFID(1, 2, 3));
  EXPECT_TRUE(LustreAPI::GetFIDFromPath("/lustre/a", found) == 0 && found == CLustreFID(9, 7, 0));
  LustreAPI::ResetFIDResolver();
  EXPECT_EQ(LustreAPI::GetFIDFromPath("/", found), -ENOTTY);  // the real client again
}

}  // namespace
