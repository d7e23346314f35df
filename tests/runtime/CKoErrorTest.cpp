// Error values: kinds, frame stacks, rendering, and the promise that success
// never touches the heap.
#include <gtest/gtest.h>

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
  bool ok;
  {
    CKoError success, assigned, copy(success);
    CKoError moved(std::move(copy));
    assigned = success;
    CKoError pushed = success.Push(kOuter, "context %d", 1);
    ok = success.IsSuccess() && !assigned.IsError() && moved.GetFrames().empty() && pushed.IsSuccess() &&
         success.GetTopMessage().empty() && success.GetOriginMessage().empty();
  }
  g_counting = false;
  EXPECT_TRUE(ok);
  EXPECT_EQ(g_allocations, 0);
}

TEST(CKoErrorTest, FactoriesPushAndAsStringRenderTopFirst) {
  const CKoError origin = FXErrorUtil::ErrorErrNo(kInner, ENOENT, "no record %d", 7);
  const CKoError pushed = origin.Push(kOuter, "addFile() Failed");
  // The original is unchanged; the copy has one more frame on top.
  EXPECT_EQ(origin.GetFrames().size(), 1u);
  ASSERT_EQ(pushed.GetFrames().size(), 2u);
  EXPECT_EQ(pushed.GetKind(), EKoErrorKind::kErrNo);
  EXPECT_EQ(pushed.GetCode(), ENOENT);
  EXPECT_EQ(pushed.GetOriginMessage(), "no record 7");
  EXPECT_EQ(pushed.GetTopMessage(), "addFile() Failed");

  const std::string at = "\n  at WzScanDB/records/Inner:10 int Inner::read(int): ";
  const std::pair<CKoError, std::string> rows[] = {
      {pushed, "Error (errno 2: No such file or directory)\n"
               "  at WzScanDB/WzScanDB:20 CKoError WzScanDB::outer(): addFile() Failed" + at + "no record 7"},
      {FXErrorUtil::ErrorInt(kInner, 101, "engine said %s", "no key"),
       "Error (status 101)" + at + "engine said no key"},
      {FXErrorUtil::ErrorWin32(kInner, kWin32NoMoreFiles),
       "Error (win32 18: There are no more files.)" + at + "There are no more files."},
      {FXErrorUtil::ErrorWin32(kInner, 774, "Rebuild Index Failed due to %s", "x"),
       "Error (win32 774: An error occurred while performing index maintenance.)" + at +
           "Rebuild Index Failed due to x"},
      // An unknown Win32 code has no text but still renders.
      {FXErrorUtil::ErrorWin32(kInner, 99999, "x"), "Error (win32 99999)" + at + "x"},
      {FXErrorUtil::ErrorWin32(kInner, 4242), "Error (win32 4242)" + at + "Win32 error 4242"},
      {CKoError(), "Success"},
  };
  for (const auto& [error, text] : rows) EXPECT_EQ(error.AsString(), text);

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
  EXPECT_EQ(FXErrorUtil::ErrorErrNo(kInner, EIO, "%s", big.c_str()).GetOriginMessage(), big);
  EXPECT_EQ(CKoError::CodeText(EKoErrorKind::kErrNo, EACCES), "Permission denied");
  EXPECT_EQ(CKoError::CodeText(EKoErrorKind::kErrNo, -5), "");
  EXPECT_EQ(CKoError::CodeText(EKoErrorKind::kInt, 101), "");
}

}  // namespace
