// What callers read and ask of records: the path identifier, text and CSV
// forms, the lines a misuse writes, parent and equality tests, flags and
// times, and what copyStandardFields takes.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "RecordTestSupport.h"
#include "support/LogAt.h"

namespace {

std::string Hex(const WzScanDBKeyGUID& guid) {
  std::string text;
  for (int i = 0; i < 16; ++i) text += FXString::Format("%02x", guid.data()[i]);
  return text;
}

TEST(RecordBehaviour, PathIdentifierIsTheMd5OfThePathAndTheEmptyPathIsNull) {
  const std::pair<const char*, const char*> cases[] = {
      {"a", "0cc175b9c0f1b6a831c399e269772661"},
      {"abc", "900150983cd24fb0d6963f7d28e17f72"},
      {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
      {"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
      {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789", "d174ab98d277d9f5a5611c2c9f419d9f"},
      {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
       "57edf4a22be3c955ac49da2e2107b67a"},
      {"/", "6666cd76f96956469e7be39d750cc7d9"},
      {"", "00000000000000000000000000000000"},  // not MD5("") (d41d8cd9...): the null identifier
  };
  for (const auto& [input, digest] : cases) {
    WzScanDBKeyGUID assigned;
    assigned.generate();
    assigned = std::string(input);
    EXPECT_EQ(Hex(assigned), digest) << input;
    EXPECT_TRUE(assigned == WzScanDBKeyGUID(std::string(input)));
  }
  EXPECT_TRUE(WzScanDBKeyGUID(std::string()).empty() && WzScanDBKeyGUID(std::string()) == WzScanDBKeyGUID::sNullGuid);
  EXPECT_FALSE(WzScanDBKeyGUID(std::string("a\0b", 3)) == WzScanDBKeyGUID(std::string("a")));

  // The text form reads each half as a little-endian number.
  WzScanDBKeyGUID guid;
  for (int i = 0; i < 16; ++i) guid.data()[i] = static_cast<unsigned char>(i);
  guid.data()[0] = 0xAB;
  guid.data()[15] = 0xCD;
  EXPECT_EQ(guid.toString(), "0x07060504030201AB" "CD0E0D0C0B0A0908");
  guid.clear();
  EXPECT_EQ(guid.toString(), "0x" + std::string(32, '0'));
  guid.initialize();
  EXPECT_EQ(guid.toString(), "0x" + std::string(15, '0') + "1" + std::string(16, '0'));
  guid.generate();
  EXPECT_FALSE(guid.empty());
}

TEST(RecordBehaviour, TextAndCsvForms) {
  WzScanDBRecord generic("/a/b", true, 4294967295ULL);
  auto& image = *static_cast<SRecordStructure*>(generic.getStructure());
  image.stat_data.st_size = 0x100000005LL;  // size and time are shown in 32 bits
  image.stat_data.st_mtim.tv_sec = 1700000001;
  image.stat_data.st_ctim.tv_sec = 1700000002;
  const std::string ab = "0xFEE5DCA4711DE3AE763486CC47154824", a = "0xD7AA9E3E7F763906F5ABE2A73740B529";
  WzScanDBLustreRecord lustre(Fid(0x200000400, 0x1a), Fid(0xABCDEF0123456789ULL, 0xFFFFFFFF, 0x10), "a/b", true, 3);
  CBackupTimeRecord backup(18446744073709551615ULL, 1);
  const std::pair<std::string, std::string> rows[] = {
      {generic.toString(), "GUID : [" + ab + "] Parent GUID : [" + a + "] Name : [b] Directory : [yes] CTime : "
                           "[1700000002] MTime : [1700000001] Size : [5] Update Time : [-1]"},
      {generic.toCSV(), ab + "," + a + ",b,yes,1700000002,1700000001,5,-1"},
      {WzScanDBRecord("/a/b").toCSV(), ab + "," + a + ",b,no,0,0,0,0"},
      {WzScanDBRecord().toCSV(), "0x" + std::string(32, '0') + ",0x" + std::string(32, '0') + ",,no,0,0,0,0"},
      {generic.toCSVHeader(), "GUID,Parent GUID,Name,Directory,CTime,MTime,Size,Update Time"},
      {lustre.toString(), "FID = [[0x200000400:0x1a:0x0]] : Parent FID = [[0xabcdef0123456789:0xffffffff:0x10]] "
                          ": Name = [a/b] : flags = [1] : Update Time = [3]"},
      {WzScanDBLustreRecord().toString(), "FID = [[0x0:0x0:0x0]] : Parent FID = [[0x0:0x0:0x0]] : Name = [] : "
                                          "flags = [0] : Update Time = [0]"},
      {lustre.toCSVHeader() + "|" + lustre.toCSV(), "Not Supported|"},
      {backup.toString(), "Inode : 18446744073709551615 , Ctime : 1"},
      {backup.toCSVHeader() + "|" + backup.toCSV(), "Not Supported|"},
  };
  for (const auto& [text, expected] : rows) EXPECT_EQ(text, expected);
}

TEST(RecordBehaviour, MisuseAndFailedLookupsWriteTheirLines) {
  FakeLustre lustre;
  const WzScanDBRecordBasePtr generic = G("/a/b"), lustreRecord = L(2, 1, "n"), backup = B(5, 7), none;
  const std::string kG = "-1 virtual bool WzScanDBRecord::", kL = "-1 virtual bool WzScanDBLustreRecord::",
                    kCtor = "-1 WzScanDBLustreRecord::WzScanDBLustreRecord(",
                    kNoFid = "Cannot convert path to FID for Path ";
  // What the call answers (a lookup: whether the FID stayed empty) and the
  // lines it writes, each as "<level> <function>: <message>|".
  const std::tuple<std::function<bool()>, bool, std::string> rows[] = {
      {[&] { return generic->checkParent(none); }, false,
       kG + "checkParent(WzScanDBRecordBasePtr): The given record is nullptr or it is not of type WzScanDBRecord|"},
      {[&] { return generic->checkParent(lustreRecord); }, false,
       kG + "checkParent(WzScanDBRecordBasePtr): The given record is nullptr or it is not of type WzScanDBRecord|"},
      {[&] { return generic->checkEqualOnIndex(lustreRecord, 0); }, false,
       kG + "checkEqualOnIndex(WzScanDBRecordBasePtr, int): The given record is nullptr or is not of type "
            "WzScanDBRecord|"},
      {[&] { return lustreRecord->checkParent(generic); }, false,
       kL + "checkParent(WzScanDBRecordBasePtr): The given record is NULL or not of type WzScanDBLustreRecord\n|"},
      {[&] { return lustreRecord->checkEqualOnIndex(none, 0); }, false,
       kL + "checkEqualOnIndex(WzScanDBRecordBasePtr, int): The given record is NULL or not of the type "
            "WzScanDBLustreRecord\n|"},
      {[&] { return backup->checkEqualOnIndex(generic, 0); }, false,
       "-1 virtual bool CBackupTimeRecord::checkEqualOnIndex(WzScanDBRecordBasePtr, int):111: The Given record is "
       "NULL or not of type CBackupTimeRecord|"},
      // The own FID's line names only the last component, the parent's the whole parent path.
      {[] { return WzScanDBLustreRecord("/elsewhere/deep/name", false, 0).getFID().empty(); }, true,
       kCtor + "std::string, bool, long long unsigned int): " + kNoFid + "name|" + kCtor +
           "std::string, bool, long long unsigned int): " + kNoFid + "/elsewhere/deep|"},
      {[] { return WzScanDBLustreRecord("/lustre/dir/missing").getFID().empty(); }, true,
       kCtor + "const string&): " + kNoFid + "missing|"},
      {[] { return WzScanDBLustreRecord("/lustre/dir/missing", Fid(1, 2), false, 0).getFID().empty(); }, true,
       kCtor + "std::string, LustreAPI::CLustreFIDPtr, bool, long long unsigned int): " + kNoFid + "missing|"},
  };
  for (const auto& [action, answer, lines] : rows) {
    LogAt log(-1);
    EXPECT_EQ(action(), answer) << lines;
    std::string written;
    for (const CLogEntry& entry : log->Entries())
      written += std::to_string(entry.level) + " " + entry.function + (entry.line == 111 ? ":111" : "") + ": " +
                 entry.message + "|";
    EXPECT_EQ(written, lines);
  }
}

TEST(RecordBehaviour, ParentAndEqualityTests) {
  const std::string n60(60, 'n');
  const WzScanDBRecordBasePtr file = G("/a/b/c"), lustreFile = L(3, 2, "c"), backup = B(5, 7);
  const std::pair<bool, bool> rows[] = {
      {file->checkParent(G("/a/b")), true},
      {G("/a/b")->checkParent(file), false},
      {G("/x")->checkParent(G("/q/r")->getRoot()), true},
      {file->checkEqualOnIndex(G("/a/b/c", true, 9), 0), true},
      {file->checkEqualOnIndex(G("/a/b"), 0), false},
      {file->checkEqualOnIndex(G("/a/b/c"), 1), true},
      {file->checkEqualOnIndex(G("/x/b/c"), 1), false},
      {G("/d/" + n60 + "1")->checkEqualOnIndex(G("/d/" + n60 + "2"), 1), false},  // beyond the key's 56 name bytes
      {file->checkEqualOnIndex(file, 2), false},
      {lustreFile->checkParent(L(2, 1, "b")), true},
      {L(2, 1, "b")->checkParent(lustreFile), false},
      {lustreFile->checkEqualOnIndex(WzScanDBRecordBasePtr(new WzScanDBLustreRecord(Fid(1, 3))), 0), true},
      {lustreFile->checkEqualOnIndex(L(2, 2, "c"), 0), false},
      {lustreFile->checkEqualOnIndex(L(9, 2, "c", true, 1), 1), true},
      {lustreFile->checkEqualOnIndex(L(3, 2, "d"), 1), false},
      {lustreFile->checkEqualOnIndex(L(3, 4, "c"), 1), false},
      {lustreFile->checkEqualOnIndex(lustreFile, 2), false},
      {backup->checkEqualOnIndex(B(5, 8), 0), true},
      {backup->checkEqualOnIndex(B(6, 7), 0), false},
      {backup->checkEqualOnIndex(backup, 1), false},
      {backup->checkParent(B(0, 0)), false},
      {G("/")->isRoot() && WzScanDBRecord().isRoot() && !G("/a")->isRoot(), true},
      {L(1, 0, "top")->isRoot() && !lustreFile->isRoot(), true},
      {B(0, 0)->isRoot() && !backup->isRoot() && !backup->isDir(), true},
  };
  for (size_t i = 0; i < sizeof rows / sizeof rows[0]; ++i) EXPECT_EQ(rows[i].first, rows[i].second) << "row " << i;
}

TEST(RecordBehaviour, FlagsTimesAndCopyStandardFields) {
  for (const WzScanDBRecordBasePtr& r : {G("/a/b", true), L(2, 1, "n", true)}) {
    r->setFlags(0x1FF);
    EXPECT_EQ(r->getFlags(), 255);
    r->setFlags(kRecordFlagVisited);
    EXPECT_FALSE(r->isDir());
    r->setRefTime(0x1234567890ULL);
    EXPECT_EQ(r->getRefTime(), 0x34567890ULL);
    r->setRefTime(0xFFFFFFFFULL);
    EXPECT_EQ(r->getRefTime(), 0xFFFFFFFFULL);  // zero-extended, not sign-extended
  }
  WzScanDBRecordBasePtr backup = B(5, 7);
  backup->setFlags(0xFF);
  backup->setRefTime(99);
  EXPECT_EQ(backup->getFlags() + backup->getRefTime(), 7u);  // the reference time is the ctime

  // Generic: flags and status from a generic record, nothing from another type.
  WzScanDBRecordBasePtr source = G("/src/file", true, 11), lustreSource = L(2, 1, "s", true, 4);
  WzScanDBRecordBasePtr target = G("/dst/other");
  source->setFlags(kRecordFlagDirectory | kRecordFlagVisited);
  lustreSource->setFlags(3);
  static_cast<SRecordStructure*>(source->getStructure())->stat_data.st_size = 1234;
  static_cast<SLustreRecord*>(lustreSource->getStructure())->stat_data.st_size = 99;
  target->setRefTime(22);
  const std::string before = Image(*target);
  CKoError error = target->copyStandardFields(lustreSource);
  EXPECT_EQ(error.AsString(),
            FXString::Format("Error (errno 1: Operation not permitted)\n  at WzScanDB/WzScanDBRecord:%d virtual "
                             "CKoError WzScanDBRecord::copyStandardFields(WzScanDBRecordBasePtr): The given record "
                             "is not of the type WzScanDBRecord", error.GetFrames().at(0).location.line));
  EXPECT_EQ(Image(*target), before);
  EXPECT_TRUE(target->copyStandardFields(source).IsSuccess());
  EXPECT_EQ(Image(*target), "440: @0 5ae7d98643ba4b6f0f5dcc2ab6b6b72d37dbef92ed772fc78efd6ea9e0f19daf @80 d204 "
                            "@176 16 @180 036f74686572");
  // Lustre: the flag byte from a Lustre record, nothing from another type.
  WzScanDBRecordBasePtr to = L(3, 1, "t", false, 8);
  EXPECT_TRUE(to->copyStandardFields(G("/g", true, 1)).IsSuccess());
  EXPECT_EQ(Image(*to), "456: @8 01 @16 03 @32 01 @40 01 @192 08 @197 74");
  EXPECT_TRUE(to->copyStandardFields(lustreSource).IsSuccess());
  EXPECT_EQ(Image(*to), "456: @8 01 @16 03 @32 01 @40 01 @192 08 @196 0374");
  EXPECT_TRUE(backup->copyStandardFields(B(1, 2)).IsSuccess());
  EXPECT_EQ(Image(*backup), "24: @0 05 @8 07 @16 30");

  // Nothing to copy from: the image stays. No tree for backup-time records.
  for (const WzScanDBRecordBasePtr& r : {source, to, backup}) {
    const std::string image = Image(*r);
    r->setStructure(nullptr);
    EXPECT_EQ(Image(*r), image);
  }
  EXPECT_FALSE(backup->MakeObject("/x") || backup->MakeParentObject());
  FakeLustre fake;
  EXPECT_EQ(to->MakeObject("/lustre/dir/file")->toString(),
            "FID = [[0x200000400:0x1b:0x0]] : Parent FID = [[0x200000400:0x1a:0x0]] : Name = [file] : flags = [0] : "
            "Update Time = [0]");
}

}  // namespace
