// Error values: kinds, frame stacks, rendering, and the promise that success
// never touches the heap.
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <new>
#include <string>

#include "runtime/CKoError.h"
#include "runtime/FXErrorUtil.h"
#include "runtime/FXString.h"

namespace {
// Counts allocations made by this thread while counting is switched on.
thread_local bool g_counting = false;
thread_local long g_allocations = 0;
}  // namespace

// Kept out of line: inlined into library templates, the pairing of malloc and
// free trips GCC's mismatched new/delete check.
__attribute__((noinline)) void* operator new(std::size_t size) {
  if (g_counting) ++g_allocations;
  if (void* p = std::malloc(size ? size : 1)) return p;
  throw std::bad_alloc();
}
__attribute__((noinline)) void operator delete(void* p) noexcept { std::free(p); }
__attribute__((noinline)) void operator delete(void* p, std::size_t) noexcept { std::free(p); }

namespace {

const FXCodeLocation kInner("WzScanDB/records/Inner", "int Inner::read(int)", 10);
const FXCodeLocation kOuter("WzScanDB/WzScanDB", "CKoError WzScanDB::outer()", 20);

TEST(CKoErrorTest, SuccessDoesNotAllocate) {
  g_allocations = 0;
  g_counting = true;
  {
    CKoError success;
    CKoError copy(success);
    CKoError moved(std::move(copy));
    CKoError assigned;
    assigned = success;
    bool ok = success.IsSuccess() && !assigned.IsError() && moved.GetFrames().empty();
    CKoError pushed = success.Push(kOuter, "context %d", 1);
    ok = ok && pushed.IsSuccess() && success.GetTopMessage().empty() &&
         success.GetOriginMessage().empty();
    g_counting = false;
    EXPECT_TRUE(ok);
  }
  g_counting = false;
  EXPECT_EQ(g_allocations, 0);
}

TEST(CKoErrorTest, FactoriesSetKindCodeAndMessage) {
  CKoError i = FXErrorUtil::ErrorInt(kInner, 101, "engine said %s", "no key");
  EXPECT_EQ(i.GetKind(), EKoErrorKind::kInt);
  EXPECT_EQ(i.GetCode(), 101);
  EXPECT_EQ(i.GetOriginMessage(), "engine said no key");

  CKoError e = FXErrorUtil::ErrorErrNo(kInner, ENOENT, "missing");
  EXPECT_EQ(e.GetKind(), EKoErrorKind::kErrNo);
  EXPECT_EQ(e.GetCode(), ENOENT);

  CKoError w = FXErrorUtil::ErrorWin32(kInner, 774, "Rebuild Index Failed due to %s", "x");
  EXPECT_EQ(w.GetKind(), EKoErrorKind::kWin32);
  EXPECT_EQ(w.GetCode(), 774);
  EXPECT_EQ(w.GetTopMessage(), "Rebuild Index Failed due to x");

  CKoError plain = FXErrorUtil::ErrorWin32(kInner, kWin32NoMoreFiles);
  EXPECT_EQ(plain.GetOriginMessage(), "There are no more files.");
  ASSERT_EQ(plain.GetFrames().size(), 1u);
  EXPECT_STREQ(plain.GetFrames()[0].location.function, "int Inner::read(int)");
  EXPECT_EQ(plain.GetFrames()[0].location.line, 10);
  EXPECT_EQ(FXErrorUtil::ErrorWin32(kInner, 4242).GetOriginMessage(), "Win32 error 4242");
}

TEST(CKoErrorTest, PushAddsFrameOnCopyAndAsStringRendersTopFirst) {
  const CKoError origin = FXErrorUtil::ErrorErrNo(kInner, ENOENT, "no record %d", 7);
  const CKoError pushed = origin.Push(kOuter, "addFile() Failed");

  // The original is unchanged; the copy has one more frame on top.
  EXPECT_EQ(origin.GetFrames().size(), 1u);
  ASSERT_EQ(pushed.GetFrames().size(), 2u);
  EXPECT_EQ(pushed.GetOriginMessage(), "no record 7");
  EXPECT_EQ(pushed.GetTopMessage(), "addFile() Failed");
  EXPECT_EQ(pushed.GetCode(), ENOENT);

  EXPECT_EQ(pushed.AsString(),
            "Error (errno 2: No such file or directory)\n"
            "  at WzScanDB/WzScanDB:20 CKoError WzScanDB::outer(): addFile() Failed\n"
            "  at WzScanDB/records/Inner:10 int Inner::read(int): no record 7");

  EXPECT_EQ(FXErrorUtil::ErrorInt(kInner, 101, "m").AsString(),
            "Error (status 101)\n  at WzScanDB/records/Inner:10 int Inner::read(int): m");
  EXPECT_EQ(FXErrorUtil::ErrorWin32(kInner, 18).AsString(),
            "Error (win32 18: There are no more files.)\n"
            "  at WzScanDB/records/Inner:10 int Inner::read(int): There are no more files.");
  EXPECT_EQ(FXErrorUtil::ErrorWin32(kInner, 774).AsString().substr(0, 71),
            "Error (win32 774: An error occurred while performing index maintenance.");
  // An unknown Win32 code has no text but still renders.
  EXPECT_EQ(FXErrorUtil::ErrorWin32(kInner, 99999, "x").AsString(),
            "Error (win32 99999)\n  at WzScanDB/records/Inner:10 int Inner::read(int): x");
  EXPECT_EQ(CKoError().AsString(), "Success");

  CKoError reset = pushed;
  reset.Success();
  EXPECT_TRUE(reset.IsSuccess());
  EXPECT_TRUE(reset.GetFrames().empty());
  EXPECT_EQ(reset.GetCode(), 0);
}

TEST(CKoErrorTest, FormatHandlesLongTextsAndCodeTextHandlesOddCodes) {
  const std::string big(5000, 'x');
  EXPECT_EQ(FXString::Format("<%s>", big.c_str()), "<" + big + ">");
  EXPECT_EQ(FXString::Format("%d-%s", 42, ""), "42-");
  CKoError e = FXErrorUtil::ErrorErrNo(kInner, EIO, "%s", big.c_str());
  EXPECT_EQ(e.GetOriginMessage(), big);
  EXPECT_EQ(CKoError::CodeText(EKoErrorKind::kErrNo, EACCES), "Permission denied");
  EXPECT_EQ(CKoError::CodeText(EKoErrorKind::kErrNo, -5), "");
  EXPECT_EQ(CKoError::CodeText(EKoErrorKind::kInt, 101), "");
}

}  // namespace
