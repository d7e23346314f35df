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

namespace hostile {
namespace {

enum Plant { kSymlinkToVictim, kDanglingSymlink, kRegularFile, kHardLinkToVictim };
const char* const kPlants[] = {"symlink to a victim", "dangling symlink", "regular file", "hard link to a victim"};

class PlantedFiles : public HostileTest {
 protected:
  void SetUp() override {
    HostileTest::SetUp();
    WriteBytes(victim, kVictimBytes);
    ASSERT_EQ(chmod(victim.c_str(), 0644), 0);
  }
  void PlantAt(const std::string& path, Plant plant) {
    if (plant == kRegularFile) return WriteBytes(path, "planted");
    const char* target = (plant == kDanglingSymlink ? danglingTarget : victim).c_str();
    ASSERT_EQ(plant == kHardLinkToVictim ? link(target, path.c_str()) : symlink(target, path.c_str()), 0);
  }
  void ExpectVictimUntouched() {
    EXPECT_TRUE(ReadBytes(victim) == kVictimBytes && ModeOf(victim) == (S_IFREG | 0644) && !Exists(danglingTarget));
  }

  const std::string kVictimBytes = "the victim's own bytes\n";
  TempDir victims;
  const std::string victim = victims / "victim", danglingTarget = victims / "would-be-created";
};

// A planted data file makes initialize open it: a link there is refused as
// not a table file, a plain file for want of its index file. A planted index
// file without a data file makes initialize create, and create refuses to
// reuse it; the planted name stays as it was. Copy refuses planted temporary
// names with EEXIST. Either way nothing is left beside the planted name (nor
// copy's own temporary copy of the data file). Links planted at copy's final names are
// replaced by rename, never written through; the copy then removes as a pair.
TEST_F(PlantedFiles, PlantedNamesAreRefusedOrReplacedNeverFollowed) {
  const std::string source = Sub("source");
  MakeGenericDb(source, 20);
  const std::string names[] = {"WzScanDB.dat", "WzScanDB.idx", "WzScanDB.dat.tmp", "WzScanDB.idx.tmp"};
  for (const std::string& name : names)
    for (Plant plant : {kSymlinkToVictim, kDanglingSymlink, kRegularFile, kHardLinkToVictim}) {
      SCOPED_TRACE(name + ", " + kPlants[plant]);
      const std::string db = Sub(name + std::to_string(plant)), planted = db + "/" + name;
      PlantAt(planted, plant);
      const mode_t mode = ModeOf(planted);
      const std::string bytes = S_ISLNK(mode) ? "" : ReadBytes(planted);
      const bool copy = name.size() > 12, index = name[9] == 'i', link = plant < kRegularFile;
      const int status = index ? TBL_FILE_EXISTS : link ? TBL_BAD_FORMAT : TBL_FILE_MISSING;
      WzScanDB scanDb(Generic(""));
      const CKoError error = copy ? WzScanDB::copy(source, db) : scanDb.initialize(db);
      if (copy) {
        EXPECT_TRUE(error.GetKind() == EKoErrorKind::kErrNo && error.GetCode() == EEXIST) << Answer(error);
        EXPECT_EQ(error.GetTopMessage(), "Couldn't copy WzScanDB from " + source + " to " + db);
      } else {
        EXPECT_EQ(Answer(error), std::to_string(status) + " Failed to " + (index ? "Create" : "Open an Existing") +
                                     " WzScanDB : " + Engine(status));
        EXPECT_FALSE(scanDb.initializeCheck());
      }
      ExpectVictimUntouched();
      EXPECT_TRUE(copy || (ModeOf(planted) == mode && (S_ISLNK(mode) ? "" : ReadBytes(planted)) == bytes));
      for (const std::string& other : names)
        EXPECT_TRUE(other == name || !Exists(db + "/" + other)) << other << " left beside the planted file";
    }
  for (Plant plant : {kSymlinkToVictim, kHardLinkToVictim, kDanglingSymlink}) {
    SCOPED_TRACE(std::string("final names, ") + kPlants[plant]);
    const std::string target = Sub("final" + std::to_string(plant));
    PlantAt(target + "/WzScanDB.dat", plant);
    ASSERT_EQ(symlink(victim.c_str(), (target + "/WzScanDB.idx").c_str()), 0);
    ASSERT_TRUE(WzScanDB::copy(source, target).IsSuccess());
    ExpectVictimUntouched();
    for (const char* name : {"/WzScanDB.dat", "/WzScanDB.idx"})
      EXPECT_TRUE(ModeOf(target + name) == (S_IFREG | 0600) && ReadBytes(target + name) == ReadBytes(source + name));
    ASSERT_TRUE(WzScanDB::remove(target).IsSuccess());
    EXPECT_FALSE(Exists(target + "/WzScanDB.dat") || Exists(target + "/WzScanDB.idx")) << "removed as a pair";
  }
}

// Each open runs in a child that an alarm ends: a hang fails the case. The
// child reports initialize's answer and exits with a read-only open's status.
TEST_F(PlantedFiles, FifosAtTheTableNamesNeverHangAnOpen) {
  const std::string kOpen = " Failed to Open an Existing WzScanDB : ", bad = std::to_string(TBL_BAD_FORMAT);
  const std::tuple<const char*, bool, std::string, int> cases[] = {  // FIFO, beside a database, answers
      {"WzScanDB.dat", false, bad + kOpen + Engine(TBL_BAD_FORMAT), TBL_BAD_FORMAT},
      {"WzScanDB.idx", true, bad + kOpen + Engine(TBL_BAD_FORMAT), TBL_BAD_FORMAT},
      {"WzScanDB.idx", false, "105 Failed to Create WzScanDB : " + Engine(TBL_FILE_EXISTS), TBL_FILE_MISSING},
      {"WzScanDB.log", true, bad + kOpen + Engine(TBL_BAD_FORMAT), TBL_OK},
  };
  int round = 0;
  for (const auto& [fifo, withDatabase, answer, readOnly] : cases) {
    const std::string db = Sub("fifo" + std::to_string(round++));
    SCOPED_TRACE(db + "/" + fifo);
    if (withDatabase) MakeGenericDb(db, 3);
    unlink((db + "/" + fifo).c_str());
    ASSERT_EQ(mkfifo((db + "/" + fifo).c_str(), 0600), 0);
    const ForkedChild::Result result = ForkedChild([&](ForkedChild::Channel& channel) {
      WzScanDB readWrite(Generic("")), reader(Generic(""));
      channel.report = Answer(readWrite.initialize(db));
      readWrite.close();
      reader.initialize((db + "/WzScanDB").c_str());  // the schema; answers -1 always
      const int status = reader.open(WZIndexing::kAccessReadOnly);
      return status == TBL_OK && reader.numberOfRecords() != 5 ? 101 : status;
    }, 20).Wait();
    EXPECT_TRUE(result.exited && result.status == readOnly && result.report == answer) << result.Describe();
    EXPECT_TRUE(S_ISFIFO(ModeOf(db + "/" + fifo)));
  }
}

// Created and copied files are owner-only unless nWzScanDBFileMode says
// otherwise (octal or decimal); a refused value is named in a warning.
TEST_F(PlantedFiles, FileModesAreOwnerOnlyUnlessTheSettingsSayOtherwise) {
  struct Restore {  // umask 0: the modes below are exactly what was asked for
    mode_t mask = umask(0);
    ~Restore() { umask(mask), unsetenv("WZ_SETTINGS_FILE"); }
  } restore;
  int round = 0;
  for (const auto& [value, mode] : std::vector<std::pair<const char*, mode_t>>{
           {nullptr, 0600}, {"0640", 0640}, {"416", 0640}, {"rw-r-----", 0600}, {"01600", 0600}, {"-1", 0600},
           {"0640x", 0600}, {"", 0600}}) {
    SCOPED_TRACE(value ? value : "no setting");
    WriteBytes(dir / "settings.ini", std::string("[~FileSystemAgent]\n") + (value ? "nWzScanDBFileMode = " : "") +
                                         (value ? value : "") + "\n");
    setenv("WZ_SETTINGS_FILE", (dir / "settings.ini").c_str(), 1);
    const std::string db = Sub("db" + std::to_string(round)), copy = Sub("copy" + std::to_string(round++));
    MakeGenericDb(db, 3);
    ASSERT_TRUE(WzScanDB::copy(db, copy).IsSuccess());
    for (const std::string& file : {db + "/WzScanDB.dat", db + "/WzScanDB.idx", copy + "/WzScanDB.dat",
                                    copy + "/WzScanDB.idx"})
      EXPECT_EQ(ModeOf(file), S_IFREG | mode) << file;
    EXPECT_TRUE(round != 3 || capture->FindContaining("nWzScanDBFileMode").empty()) << "a good value refused";
  }
  // Each refused value was named in a warning; an empty value is no setting.
  EXPECT_GE(capture->FindContaining("nWzScanDBFileMode").size(), 4u);
}

// A read-only database directory gives a clear error and stays empty. The
// tests run as root here and in CI, and root ignores permission bits, so the
// call runs in a forked child that first drops to the unprivileged user
// "nobody" (65534); as a non-root user it runs with the caller's own rights.
// (Copy and remove pass errno and message on through the same paths as the
// failures tests/core/FilesTest and MessagesTest check.)
using Permissions = HostileTest;

TEST_F(Permissions, CreatingInAReadOnlyDirectoryIsAccessDenied) {
  constexpr uid_t kNobody = 65534;
  const bool root = geteuid() == 0;
  const std::string readOnly = Sub("read-only");  // owned by the child's user
  ASSERT_TRUE(chmod(dir.path().c_str(), 0711) == 0 && (!root || chown(readOnly.c_str(), kNobody, kNobody) == 0) &&
              chmod(readOnly.c_str(), 0555) == 0);
  const ForkedChild::Result result = ForkedChild([&](ForkedChild::Channel& channel) {
    if (root && (setresgid(kNobody, kNobody, kNobody) != 0 || setresuid(kNobody, kNobody, kNobody) != 0)) return 3;
    channel.report = Answer(WzScanDB(Generic("")).initialize(readOnly));
    return 0;
  }).Wait();
  EXPECT_TRUE(result.exited && result.status == 0) << result.Describe();
  EXPECT_EQ(result.report, "120 Failed to Create WzScanDB : " + Engine(TBL_ACCESS_DENIED));
  EXPECT_FALSE(Exists(readOnly + "/WzScanDB.dat") || Exists(readOnly + "/WzScanDB.idx"));
}

}  // namespace
}  // namespace hostile
