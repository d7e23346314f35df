// Files planted by someone else at the names a database creates or copies
// through (WzScanDB.dat, WzScanDB.idx and the ".tmp" names of copy): nothing
// follows a link or reuses the planted file, the victim stays unchanged and
// the caller gets an error. A FIFO at a table's name never makes an open
// wait for a writer. Created files are owner-only unless the settings say
// otherwise.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "HostileSupport.h"
#include "concurrency/ForkedChild.h"

namespace hostile {
namespace {

enum class Plant { kSymlinkToVictim, kDanglingSymlink, kRegularFile, kHardLinkToVictim };

const char* Describe(Plant plant) {
  switch (plant) {
    case Plant::kSymlinkToVictim: return "symlink to a victim";
    case Plant::kDanglingSymlink: return "dangling symlink";
    case Plant::kRegularFile: return "regular file";
    case Plant::kHardLinkToVictim: return "hard link to a victim";
  }
  return "";
}

class PlantedFiles : public HostileTest {
 protected:
  void SetUp() override {
    HostileTest::SetUp();
    victim = victims / "victim";
    WriteBytes(victim, kVictimBytes);
    ASSERT_EQ(chmod(victim.c_str(), 0644), 0);
    danglingTarget = victims / "would-be-created";
  }

  void PlantAt(const std::string& path, Plant plant) {
    switch (plant) {
      case Plant::kSymlinkToVictim: ASSERT_EQ(symlink(victim.c_str(), path.c_str()), 0); break;
      case Plant::kDanglingSymlink:
        ASSERT_EQ(symlink(danglingTarget.c_str(), path.c_str()), 0);
        break;
      case Plant::kRegularFile: WriteBytes(path, "planted"); break;
      case Plant::kHardLinkToVictim: ASSERT_EQ(link(victim.c_str(), path.c_str()), 0); break;
    }
  }

  void ExpectVictimUntouched() {
    EXPECT_EQ(ReadBytes(victim), kVictimBytes);
    EXPECT_EQ(ModeOf(victim), 0644u);
    EXPECT_FALSE(Exists(danglingTarget));
  }

  const std::string kVictimBytes = "the victim's own bytes\n";
  TempDir victims;
  std::string victim, danglingTarget;
};

TEST_F(PlantedFiles, CreateRefusesEveryPlantedName) {
  struct Case {
    const char* name;
    int status;
    const char* message;
  };
  int round = 0;
  for (const char* name : {"WzScanDB.dat", "WzScanDB.idx"}) {
    for (Plant plant : {Plant::kSymlinkToVictim, Plant::kDanglingSymlink, Plant::kRegularFile,
                        Plant::kHardLinkToVictim}) {
      SCOPED_TRACE(std::string(name) + ", " + Describe(plant));
      // A planted data file makes initialize open it: a link there is refused
      // as not a table file, a plain file for want of its index file. A
      // planted index file without a data file makes initialize create, and
      // create refuses to reuse it.
      const bool link = plant == Plant::kSymlinkToVictim || plant == Plant::kDanglingSymlink;
      const Case c = std::string(name) == "WzScanDB.idx"
                         ? Case{name, TBL_FILE_EXISTS, "Failed to Create WzScanDB : "}
                         : Case{name, link ? TBL_BAD_FORMAT : TBL_FILE_MISSING,
                                "Failed to Open an Existing WzScanDB : "};
      const std::string db = dir / ("db" + std::to_string(round++));
      ASSERT_EQ(mkdir(db.c_str(), 0700), 0);
      PlantAt(db + "/" + c.name, plant);
      const bool wasLink = IsSymlink(db + "/" + c.name);
      const std::string plantedBytes = wasLink ? "" : ReadBytes(db + "/" + c.name);

      WzScanDB scanDb(Generic(""));
      CKoError error = scanDb.initialize(db);
      ASSERT_TRUE(error.IsError());
      EXPECT_EQ(error.GetCode(), c.status);
      EXPECT_EQ(error.GetOriginMessage(), c.message + std::string(TCtreeTable::errToString(c.status)));
      EXPECT_FALSE(scanDb.initializeCheck());

      ExpectVictimUntouched();
      EXPECT_EQ(IsSymlink(db + "/" + c.name), wasLink);
      if (!wasLink) {
        EXPECT_EQ(ReadBytes(db + "/" + c.name), plantedBytes);
      }
      const std::string other = std::string(c.name) == "WzScanDB.dat" ? "WzScanDB.idx" : "WzScanDB.dat";
      EXPECT_FALSE(Exists(db + "/" + other)) << "a file was left beside the planted one";
    }
  }
}

TEST_F(PlantedFiles, CopyRefusesPlantedTemporaryNames) {
  const std::string source = dir / "source";
  ASSERT_EQ(mkdir(source.c_str(), 0700), 0);
  MakeGenericDb(source, 20);
  int round = 0;
  for (const char* name : {"WzScanDB.dat.tmp", "WzScanDB.idx.tmp"}) {
    for (Plant plant : {Plant::kSymlinkToVictim, Plant::kDanglingSymlink, Plant::kRegularFile,
                        Plant::kHardLinkToVictim}) {
      SCOPED_TRACE(std::string(name) + ", " + Describe(plant));
      const std::string target = dir / ("copy" + std::to_string(round++));
      ASSERT_EQ(mkdir(target.c_str(), 0700), 0);
      PlantAt(target + "/" + name, plant);

      CKoError error = WzScanDB::copy(source, target);
      ASSERT_TRUE(error.IsError());
      EXPECT_EQ(error.GetKind(), EKoErrorKind::kErrNo);
      EXPECT_EQ(error.GetCode(), EEXIST);
      EXPECT_EQ(error.GetTopMessage(),
                "Couldn't copy WzScanDB from " + source + " to " + target);
      ExpectVictimUntouched();
      EXPECT_FALSE(Exists(target + "/WzScanDB.dat"));
      EXPECT_FALSE(Exists(target + "/WzScanDB.idx"));
      // What copy itself created under the other temporary name is gone.
      if (std::string(name) == "WzScanDB.idx.tmp") {
        EXPECT_FALSE(Exists(target + "/WzScanDB.dat.tmp"));
      }
    }
  }
}

TEST_F(PlantedFiles, CopyReplacesLinksAtFinalNamesWithoutFollowingThem) {
  // The final names are replaced by rename: a link planted there is itself
  // replaced, never written through.
  const std::string source = dir / "source";
  ASSERT_EQ(mkdir(source.c_str(), 0700), 0);
  MakeGenericDb(source, 20);
  for (Plant plant : {Plant::kSymlinkToVictim, Plant::kHardLinkToVictim, Plant::kDanglingSymlink}) {
    SCOPED_TRACE(Describe(plant));
    const std::string target = dir / ("final-" + std::to_string(static_cast<int>(plant)));
    ASSERT_EQ(mkdir(target.c_str(), 0700), 0);
    PlantAt(target + "/WzScanDB.dat", plant);
    ASSERT_EQ(symlink(victim.c_str(), (target + "/WzScanDB.idx").c_str()), 0);

    ASSERT_TRUE(WzScanDB::copy(source, target).IsSuccess());
    ExpectVictimUntouched();
    for (const char* name : {"/WzScanDB.dat", "/WzScanDB.idx"}) {
      EXPECT_FALSE(IsSymlink(target + name));
      EXPECT_EQ(ModeOf(target + name), 0600u);
      EXPECT_EQ(ReadBytes(target + name), ReadBytes(source + name));
    }
    WzScanDB db(Generic(""));
    ASSERT_TRUE(db.initialize(target).IsSuccess());
    EXPECT_EQ(db.numberOfRecords(), 22);
    db.close();
  }
}

TEST_F(PlantedFiles, FifosAtTheTableNamesNeverHangAnOpen) {
  // Each open runs in a child that an alarm ends: a hang fails the case.
  struct Case {
    const char* fifo;
    bool withDatabase;  // a real database beside the FIFO
    int readWrite;      // status of initialize (0: opens)
    const char* message;
    int readOnly;       // status of a read-only open
  };
  const Case cases[] = {
      {"WzScanDB.dat", false, TBL_BAD_FORMAT, "Failed to Open an Existing WzScanDB : ", TBL_BAD_FORMAT},
      {"WzScanDB.idx", true, TBL_BAD_FORMAT, "Failed to Open an Existing WzScanDB : ", TBL_BAD_FORMAT},
      {"WzScanDB.idx", false, TBL_FILE_EXISTS, "Failed to Create WzScanDB : ", TBL_FILE_MISSING},
      {"WzScanDB.log", true, TBL_BAD_FORMAT, "Failed to Open an Existing WzScanDB : ", TBL_OK},
  };
  int round = 0;
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.fifo) + (c.withDatabase ? " beside a database" : " alone"));
    const std::string db = dir / ("fifo" + std::to_string(round++));
    ASSERT_EQ(mkdir(db.c_str(), 0700), 0);
    if (c.withDatabase) MakeGenericDb(db, 3);
    if (std::string(c.fifo) == "WzScanDB.idx") ::unlink((db + "/WzScanDB.idx").c_str());
    ASSERT_EQ(mkfifo((db + "/" + c.fifo).c_str(), 0600), 0);
    ForkedChild child(
        [&](ForkedChild::Channel& channel) {
          WzScanDB readWrite(Generic(""));
          CKoError error = readWrite.initialize(db);
          channel.report = error.IsError() ? error.GetOriginMessage() : "";
          readWrite.close();
          WzScanDB readOnly(Generic(""));
          readOnly.initialize((db + "/WzScanDB").c_str());  // the schema; answers -1 always
          const int status = readOnly.open(WZIndexing::kAccessReadOnly);
          if (status == TBL_OK && readOnly.numberOfRecords() != 5) return 101;
          return status;
        },
        20);
    const ForkedChild::Result result = child.Wait();
    ASSERT_TRUE(result.exited) << result.Describe();
    EXPECT_EQ(result.status, c.readOnly);
    EXPECT_EQ(result.report,
              c.readWrite ? c.message + std::string(TCtreeTable::errToString(c.readWrite)) : "");
    struct stat st;
    EXPECT_TRUE(lstat((db + "/" + c.fifo).c_str(), &st) == 0 && S_ISFIFO(st.st_mode));
  }
}

class FileModes : public HostileTest {
 protected:
  void SetUp() override {
    HostileTest::SetUp();
    oldMask = umask(0);  // the modes below are then exactly what was asked for
  }
  void TearDown() override {
    umask(oldMask);
    unsetenv("WZ_SETTINGS_FILE");
    HostileTest::TearDown();
  }

  void UseSetting(const std::string& value) {
    const std::string settings = dir / "settings.ini";
    WriteBytes(settings, "[~FileSystemAgent]\nnWzScanDBFileMode = " + value + "\n");
    setenv("WZ_SETTINGS_FILE", settings.c_str(), 1);
  }

  // Creates a database and a copy of it; both pairs of files have `mode`.
  void ExpectModes(mode_t mode, const std::string& tag) {
    SCOPED_TRACE(tag);
    const std::string db = dir / ("db-" + tag), copy = dir / ("copy-" + tag);
    ASSERT_EQ(mkdir(db.c_str(), 0700), 0);
    ASSERT_EQ(mkdir(copy.c_str(), 0700), 0);
    MakeGenericDb(db, 3);
    ASSERT_TRUE(WzScanDB::copy(db, copy).IsSuccess());
    for (const std::string& d : {db, copy})
      for (const char* name : {"/WzScanDB.dat", "/WzScanDB.idx"})
        EXPECT_EQ(ModeOf(d + name), mode) << d + name;
  }

  mode_t oldMask = 0;
};

TEST_F(FileModes, OwnerOnlyUnlessTheSettingsSayOtherwise) {
  ExpectModes(0600, "default");
  UseSetting("0640");
  ExpectModes(0640, "octal");
  UseSetting("416");  // decimal for octal 0640
  ExpectModes(0640, "decimal");
  EXPECT_TRUE(capture->FindContaining("nWzScanDBFileMode").empty());
  int round = 0;
  for (const char* bad : {"rw-r-----", "01600", "-1", "0640x", ""}) {
    UseSetting(bad);
    ExpectModes(0600, "bad" + std::to_string(round++));
  }
  // Each refused value was named in a warning; an empty value is no setting.
  EXPECT_GE(capture->FindContaining("nWzScanDBFileMode").size(), 4u);
}

}  // namespace
}  // namespace hostile
