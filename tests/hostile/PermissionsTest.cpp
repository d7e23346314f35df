// A read-only database directory and a directory the caller may not enter
// give clear errors. The tests run as root here and in CI, and root ignores
// permission bits, so each case runs in a forked child that first drops to
// the unprivileged user "nobody" (65534); as a non-root user the case runs
// with the caller's own rights.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <functional>

#include "HostileSupport.h"

namespace hostile {
namespace {

constexpr uid_t kNobody = 65534;

struct Outcome {
  long long code = 0;
  std::string message;  // origin message, then top message, newline-separated
};

// Runs `body` in a child without privileges and returns the error it made.
Outcome RunUnprivileged(const std::function<CKoError()>& body) {
  int fds[2];
  EXPECT_EQ(pipe(fds), 0);
  const pid_t pid = fork();
  if (pid == 0) {
    close(fds[0]);
    if (geteuid() == 0 &&
        (setresgid(kNobody, kNobody, kNobody) != 0 || setresuid(kNobody, kNobody, kNobody) != 0))
      _exit(3);
    CKoError error = body();
    const std::string text = std::to_string(error.GetCode()) + "\n" + error.GetOriginMessage() +
                             "\n" + error.GetTopMessage();
    if (write(fds[1], text.data(), text.size()) != static_cast<ssize_t>(text.size())) _exit(4);
    _exit(0);
  }
  close(fds[1]);
  std::string text;
  char buffer[512];
  ssize_t n;
  while ((n = read(fds[0], buffer, sizeof buffer)) > 0) text.append(buffer, static_cast<size_t>(n));
  close(fds[0]);
  int status = 0;
  EXPECT_EQ(waitpid(pid, &status, 0), pid);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "child status " << status;
  Outcome outcome;
  const size_t first = text.find('\n');
  if (first == std::string::npos) return outcome;
  outcome.code = std::stoll(text.substr(0, first));
  outcome.message = text.substr(first + 1);
  return outcome;
}

class Permissions : public HostileTest {
 protected:
  void SetUp() override {
    HostileTest::SetUp();
    // The unprivileged child must be able to reach the directories below.
    ASSERT_EQ(chmod(dir.path().c_str(), 0711), 0);
  }

  std::string MakeDir(const std::string& name, mode_t mode, uid_t owner) {
    const std::string path = dir / name;
    EXPECT_EQ(mkdir(path.c_str(), 0700), 0);
    if (geteuid() == 0) {
      EXPECT_EQ(chown(path.c_str(), owner, owner), 0);
    }
    EXPECT_EQ(chmod(path.c_str(), mode), 0);
    return path;
  }

  // Owner id that the child runs as.
  uid_t Child() const { return geteuid() == 0 ? kNobody : geteuid(); }
};

TEST_F(Permissions, CreatingInAReadOnlyDirectory) {
  const std::string readOnly = MakeDir("read-only", 0555, Child());
  Outcome outcome = RunUnprivileged([&] {
    WzScanDB db(Generic(""));
    return db.initialize(readOnly);
  });
  EXPECT_EQ(outcome.code, TBL_ACCESS_DENIED);
  EXPECT_EQ(outcome.message.substr(0, outcome.message.find('\n')),
            std::string("Failed to Create WzScanDB : ") + TCtreeTable::errToString(TBL_ACCESS_DENIED));
  EXPECT_FALSE(Exists(readOnly + "/WzScanDB.dat"));
  EXPECT_FALSE(Exists(readOnly + "/WzScanDB.idx"));
}

TEST_F(Permissions, OpeningInADirectoryWithoutPermission) {
  // A database the child may not reach: its directory belongs to another
  // user and is closed to everyone else.
  const std::string closed = MakeDir("closed", 0700, Child());
  MakeGenericDb(closed, 5);
  const std::string datBefore = ReadBytes(closed + "/WzScanDB.dat");
  if (geteuid() == 0) {
    ASSERT_EQ(chown(closed.c_str(), 0, 0), 0);
  } else {
    ASSERT_EQ(chmod(closed.c_str(), 0), 0);
  }
  Outcome outcome = RunUnprivileged([&] {
    WzScanDB db(Generic(""));
    return db.initialize(closed);
  });
  // The data file cannot even be seen, so initialize tries to create one; the
  // status says why that fails.
  EXPECT_EQ(outcome.code, TBL_ACCESS_DENIED);
  EXPECT_NE(outcome.message.find(TCtreeTable::errToString(TBL_ACCESS_DENIED)), std::string::npos);
  ASSERT_EQ(chmod(closed.c_str(), 0700), 0);
  EXPECT_EQ(ReadBytes(closed + "/WzScanDB.dat"), datBefore);
}

TEST_F(Permissions, CopyingAndRemovingInAReadOnlyDirectory) {
  const std::string source = MakeDir("source", 0700, Child());
  MakeGenericDb(source, 5);
  if (geteuid() == 0) {
    for (const char* name : {"/WzScanDB.dat", "/WzScanDB.idx"})
      ASSERT_EQ(chown((source + name).c_str(), kNobody, kNobody), 0);
  }
  const std::string readOnly = MakeDir("read-only", 0555, Child());

  Outcome copied = RunUnprivileged([&] { return WzScanDB::copy(source, readOnly); });
  EXPECT_EQ(copied.code, EACCES);
  EXPECT_NE(copied.message.find("Couldn't copy WzScanDB from " + source + " to " + readOnly),
            std::string::npos);
  EXPECT_FALSE(Exists(readOnly + "/WzScanDB.dat.tmp"));
  EXPECT_FALSE(Exists(readOnly + "/WzScanDB.dat"));

  ASSERT_EQ(chmod(source.c_str(), 0555), 0);
  Outcome removed = RunUnprivileged([&] { return WzScanDB::remove(source); });
  EXPECT_EQ(removed.code, EACCES);
  EXPECT_NE(removed.message.find("Couldn't remove WzScanDB.dat in " + source), std::string::npos);
  EXPECT_TRUE(Exists(source + "/WzScanDB.dat"));
  EXPECT_TRUE(Exists(source + "/WzScanDB.idx"));
}

}  // namespace
}  // namespace hostile
