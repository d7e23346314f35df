// getSubTree: breadth-first walks of the sub-tree below a start record.
//
// The six overloads share one walk (walkSubTree). They differ in whether they
// produce relative paths, whether they set or clear the visited bit of every
// record they meet (writing each record back), and whether they return the
// walk in batches that later calls continue. Each overload keeps its own
// signature text, message wording and source lines; they live in the
// SubTreeWalk descriptions below.

#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "WzScanDB/RecordIdentity.h"
#include "WzScanDB/SpillingFifo.h"
#include "WzScanDB/WalkQueueSetting.h"
#include "WzScanDB/WzScanDB.h"
#include "runtime/FXErrorUtil.h"
#include "runtime/FXPath.h"
#include "runtime/auto_lock.h"
#include "WzScanDB/WzScanDBErrorSite.h"

namespace {

using WzScanDBInternal::kSourcePath;
using WzScanDBInternal::RecordIdentity;
using WzScanDBInternal::SpillingFifo;

namespace site {
// getSubTree(start, records, validate)
constexpr int kValidateLookupFailed = 1098;
constexpr int kValidateNotPresent = 1102;
constexpr int kValidateStartSetFailed = 1113;
constexpr int kValidateStartClearFailed = 1118;
constexpr int kValidateChildrenFailed = 1129;
constexpr int kValidateChildWriteFailed = 1145;
// getSubTree(start, records, paths, validate)
constexpr int kPathsValidateLookupFailed = 1163;
constexpr int kPathsValidateNotPresent = 1166;
constexpr int kPathsValidateStartSetFailed = 1181;
constexpr int kPathsValidateStartClearFailed = 1186;
constexpr int kPathsValidateChildrenFailed = 1200;
constexpr int kPathsValidateChildWriteFailed = 1236;
// getSubTree(start, records, validate, maxItems, continueRetrieval)
constexpr int kBatchValidateLookupFailed = 1256;
constexpr int kBatchValidateNotPresent = 1259;
constexpr int kBatchValidateStartSetFailed = 1272;
constexpr int kBatchValidateStartClearFailed = 1277;
constexpr int kBatchValidateChildrenFailed = 1288;
constexpr int kBatchValidateChildWriteFailed = 1304;
// getSubTree(start, records, paths, validate, maxItems, continueRetrieval)
constexpr int kBatchPathsValidateLookupFailed = 1335;
constexpr int kBatchPathsValidateNotPresent = 1337;
constexpr int kBatchPathsValidateStartSetFailed = 1351;
constexpr int kBatchPathsValidateStartClearFailed = 1356;
constexpr int kBatchPathsValidateChildrenFailed = 1371;
constexpr int kBatchPathsValidateChildWriteFailed = 1404;
// getSubTree(start, records, paths, maxItems, continueRetrieval)
constexpr int kBatchPathsLookupFailed = 1433;
constexpr int kBatchPathsNotPresent = 1436;
constexpr int kBatchPathsChildrenFailed = 1458;
// getSubTree(start, records, maxItems, continueRetrieval)
constexpr int kBatchLookupFailed = 1499;
constexpr int kBatchNotPresent = 1501;
constexpr int kBatchChildrenFailed = 1514;
// Sites an overload does not have.
constexpr int kNone = 0;
}  // namespace site

constexpr const char* kSignatureValidate =
    "CKoError WzScanDB::getSubTree(WzScanDBRecordBasePtr, "
    "std::vector<boost::shared_ptr<WzScanDBRecordBase> >&, bool)";
constexpr const char* kSignaturePathsValidate =
    "CKoError WzScanDB::getSubTree(WzScanDBRecordBasePtr, "
    "std::vector<boost::shared_ptr<WzScanDBRecordBase> >&, "
    "std::vector<std::__cxx11::basic_string<char> >&, bool)";
constexpr const char* kSignatureBatchValidate =
    "CKoError WzScanDB::getSubTree(WzScanDBRecordBasePtr, "
    "std::vector<boost::shared_ptr<WzScanDBRecordBase> >&, bool, int, bool)";
constexpr const char* kSignatureBatchPathsValidate =
    "CKoError WzScanDB::getSubTree(WzScanDBRecordBasePtr, "
    "std::vector<boost::shared_ptr<WzScanDBRecordBase> >&, "
    "std::vector<std::__cxx11::basic_string<char> >&, bool, int, bool)";
constexpr const char* kSignatureBatchPaths =
    "CKoError WzScanDB::getSubTree(WzScanDBRecordBasePtr, "
    "std::vector<boost::shared_ptr<WzScanDBRecordBase> >&, "
    "std::vector<std::__cxx11::basic_string<char> >&, int, bool)";
constexpr const char* kSignatureBatch =
    "CKoError WzScanDB::getSubTree(WzScanDBRecordBasePtr, "
    "std::vector<boost::shared_ptr<WzScanDBRecordBase> >&, int, bool)";

// Message texts. The first overload words its write failures its own way.
constexpr const char* kLookupFailedText = "checkDBRecord(%s) Failed";
constexpr const char* kNotPresentText =
    "The record %s is not present in the database to retrieve a subtree";
constexpr const char* kChildrenFailedText = "getChildren(%s) Failed";
constexpr const char* kStartWriteFailedText = "updateDBRecord(%s) Failed";
constexpr const char* kChildFlagWriteFailedText = "updateDBRecord(%s) with visited flag %s Failed";
constexpr const char* kStartSetFailedText = "updateDBRecord(%s) with visited = true Failed";
constexpr const char* kStartClearFailedText = "updateDBRecord(%s) with visited = false Failed";
constexpr const char* kChildVisitedWriteFailedText = "updateDBRecord(%s) with visited = %s Failed";

}  // namespace

struct WzScanDB::SubTreeWalk {
  const char* signature;
  bool batched;  // member work queues, batch bound, continuation
  bool marks;    // sets or clears the visited bit and writes records back
  int lookupFailedLine;
  int notPresentLine;
  int startSetFailedLine;
  int startClearFailedLine;
  int childrenFailedLine;
  int childWriteFailedLine;
  const char* startSetFailedText;
  const char* startClearFailedText;
  const char* childWriteFailedText;  // "%s" record, "%s" flag word
  const char* flagSetWord;
  const char* flagClearWord;
};

namespace {

// A record of `model`'s type with an all-zero image: a bare record
// (MakeParentObject) where the type makes one, else a clone.
WzScanDBRecordBasePtr BlankRecordLike(WzScanDBRecordBase& model) {
  WzScanDBRecordBasePtr blank = model.MakeParentObject();
  if (!blank) blank = model.Clone();
  std::memset(blank->getStructure(), 0, static_cast<size_t>(blank->recordSize()));
  blank->setStructure(blank->getStructure());
  return blank;
}

inline int withVisited(int flags, bool validate) {
  return validate ? (flags | kRecordFlagVisited) : (flags & ~kRecordFlagVisited);
}

// Hands out the entries of a path list one after the other, reusing the
// strings (and their buffers) that the list held before the call, and cuts
// the list to the entries handed out when it goes. The list thus reads as
// cleared at the start, without a free and an allocation per path per batch.
class PathSlots {
 public:
  explicit PathSlots(std::vector<std::string>* paths) : paths_(paths) {}
  ~PathSlots() {
    if (paths_) paths_->resize(used_);
  }
  PathSlots(const PathSlots&) = delete;
  PathSlots& operator=(const PathSlots&) = delete;

  // The next entry, holding `prefix` followed by `name`.
  void append(const std::string& prefix, const std::string& name) {
    if (used_ < paths_->size()) {
      if (used_ + kAhead < paths_->size()) __builtin_prefetch((*paths_)[used_ + kAhead].data(), 1);
      (*paths_)[used_].assign(prefix).append(name);
    } else {
      std::string path;
      path.reserve(prefix.size() + name.size());
      path.append(prefix).append(name);
      paths_->push_back(std::move(path));
    }
    ++used_;
  }
  const std::string& last() const { return (*paths_)[used_ - 1]; }

 private:
  static constexpr size_t kAhead = 8;
  std::vector<std::string>* paths_;
  size_t used_ = 0;
};

}  // namespace

CKoError WzScanDB::getSubTree(WzScanDBRecordBasePtr start,
                              std::vector<WzScanDBRecordBasePtr>& records, bool validate) {
  static const SubTreeWalk walk = {
      kSignatureValidate, false, true,
      site::kValidateLookupFailed, site::kValidateNotPresent,
      site::kValidateStartSetFailed, site::kValidateStartClearFailed,
      site::kValidateChildrenFailed, site::kValidateChildWriteFailed,
      kStartWriteFailedText, kStartWriteFailedText, kChildFlagWriteFailedText, "set", "removed"};
  return walkSubTree(walk, std::move(start), records, nullptr, validate, 0, false);
}

CKoError WzScanDB::getSubTree(WzScanDBRecordBasePtr start,
                              std::vector<WzScanDBRecordBasePtr>& records,
                              std::vector<std::string>& paths, bool validate) {
  static const SubTreeWalk walk = {
      kSignaturePathsValidate, false, true,
      site::kPathsValidateLookupFailed, site::kPathsValidateNotPresent,
      site::kPathsValidateStartSetFailed, site::kPathsValidateStartClearFailed,
      site::kPathsValidateChildrenFailed, site::kPathsValidateChildWriteFailed,
      kStartSetFailedText, kStartClearFailedText, kChildVisitedWriteFailedText, "true", "false"};
  return walkSubTree(walk, std::move(start), records, &paths, validate, 0, false);
}

CKoError WzScanDB::getSubTree(WzScanDBRecordBasePtr start,
                              std::vector<WzScanDBRecordBasePtr>& records, bool validate,
                              int maxItems, bool continueRetrieval) {
  static const SubTreeWalk walk = {
      kSignatureBatchValidate, true, true,
      site::kBatchValidateLookupFailed, site::kBatchValidateNotPresent,
      site::kBatchValidateStartSetFailed, site::kBatchValidateStartClearFailed,
      site::kBatchValidateChildrenFailed, site::kBatchValidateChildWriteFailed,
      kStartSetFailedText, kStartClearFailedText, kChildVisitedWriteFailedText, "true", "false"};
  return walkSubTree(walk, std::move(start), records, nullptr, validate, maxItems,
                     continueRetrieval);
}

CKoError WzScanDB::getSubTree(WzScanDBRecordBasePtr start,
                              std::vector<WzScanDBRecordBasePtr>& records,
                              std::vector<std::string>& paths, bool validate, int maxItems,
                              bool continueRetrieval) {
  static const SubTreeWalk walk = {
      kSignatureBatchPathsValidate, true, true,
      site::kBatchPathsValidateLookupFailed, site::kBatchPathsValidateNotPresent,
      site::kBatchPathsValidateStartSetFailed, site::kBatchPathsValidateStartClearFailed,
      site::kBatchPathsValidateChildrenFailed, site::kBatchPathsValidateChildWriteFailed,
      kStartSetFailedText, kStartClearFailedText, kChildVisitedWriteFailedText, "true", "false"};
  return walkSubTree(walk, std::move(start), records, &paths, validate, maxItems,
                     continueRetrieval);
}

CKoError WzScanDB::getSubTree(WzScanDBRecordBasePtr start,
                              std::vector<WzScanDBRecordBasePtr>& records,
                              std::vector<std::string>& paths, int maxItems,
                              bool continueRetrieval) {
  static const SubTreeWalk walk = {
      kSignatureBatchPaths, true, false,
      site::kBatchPathsLookupFailed, site::kBatchPathsNotPresent,
      site::kNone, site::kNone, site::kBatchPathsChildrenFailed, site::kNone,
      nullptr, nullptr, nullptr, nullptr, nullptr};
  return walkSubTree(walk, std::move(start), records, &paths, false, maxItems,
                     continueRetrieval);
}

CKoError WzScanDB::getSubTree(WzScanDBRecordBasePtr start,
                              std::vector<WzScanDBRecordBasePtr>& records, int maxItems,
                              bool continueRetrieval) {
  static const SubTreeWalk walk = {
      kSignatureBatch, true, false,
      site::kBatchLookupFailed, site::kBatchNotPresent,
      site::kNone, site::kNone, site::kBatchChildrenFailed, site::kNone,
      nullptr, nullptr, nullptr, nullptr, nullptr};
  return walkSubTree(walk, std::move(start), records, nullptr, false, maxItems,
                     continueRetrieval);
}

void WzScanDB::configureWalks(const std::string& directory) {
  walkQueueMemory = WzScanDBInternal::WalkQueueBytesFromSettings();
  walkDirectory = directory;
  pendingRecords->configure(walkQueueMemory / 2, walkDirectory);
  pendingPaths->configure(walkQueueMemory / 2, walkDirectory);
}

const RecordIdentity& WzScanDB::recordIdentity() {
  if (!identityLayout) identityLayout.reset(new RecordIdentity(*recordPrototype));
  return *identityLayout;
}

// Folders wait in a first-in-first-out queue, so every record at depth d is
// returned before any record at depth d+1. A batched walk keeps its queues in
// pendingRecords/pendingPaths (and its start record in pendingStart) between
// calls and ends a batch only after a whole folder has been processed, once
// it holds more than maxItems records; the unbatched walks use local queues
// and leave a batched walk undisturbed.
//
// A waiting folder is kept as its own identifier alone (and, in the walks
// with paths, its children's path prefix), in queues of bounded memory that
// move what does not fit to a temporary file beside the table. When its turn
// comes, one reusable record of the start record's type is given that
// identifier and nothing else: all that getChildren reads of a folder (the
// children key, checkParent) depends on the identifier alone. The start
// record itself is expanded as stored.
//
// Each record has one parent link, so the only record a walk can meet twice
// is its start record, reached again through a cycle of parent links (or its
// own parent link). Met again as a folder it would be expanded again, and the
// walk would go round for ever: the walk reports the cycle as an error and
// ends. Met again as a file it is returned like any other child, as a walk
// that ends has always done (a Lustre root of FID 0 is its own parent).
//
// A marking walk writes a record back only when its visited bit changes: a
// record that already carries the wanted bit would be rewritten byte for
// byte, so the write is skipped and a walk over an unmarked tree stays a
// read.
CKoError WzScanDB::walkSubTree(const SubTreeWalk& walk, WzScanDBRecordBasePtr start,
                               std::vector<WzScanDBRecordBasePtr>& records,
                               std::vector<std::string>* paths, bool validate, int maxItems,
                               bool continueRetrieval) {
  auto_lock<FXCriticalSection> lock(dbLock);
  records.clear();
  PathSlots pathSlots(paths);

  auto location = [&walk](int line) { return FXCodeLocation(kSourcePath, walk.signature, line); };

  std::unique_ptr<SpillingFifo> localFolders, localPrefixes;
  WzScanDBRecordBasePtr localStart;
  if (!walk.batched) {
    localFolders.reset(new SpillingFifo(walkQueueMemory / 2, walkDirectory));
    localPrefixes.reset(new SpillingFifo(walkQueueMemory / 2, walkDirectory));
  }
  SpillingFifo& folders = walk.batched ? *pendingRecords : *localFolders;
  SpillingFifo& prefixes = walk.batched ? *pendingPaths : *localPrefixes;
  WzScanDBRecordBasePtr& walkStart = walk.batched ? pendingStart : localStart;

  // Ends the walk on a fault of its own queues: they no longer say which
  // folders are left.
  auto queueFailed = [&](int error) {
    folders.clear();
    if (paths) prefixes.clear();
    return FXErrorUtil::ErrorErrNo(location(__LINE__), error,
                                   "Cannot keep the folders still to be walked in a temporary "
                                   "file in %s: %s",
                                   walkDirectory.c_str(), std::strerror(error));
  };

  std::string id;
  if (!(walk.batched && continueRetrieval)) {
    if (!start) {
      return FXErrorUtil::ErrorErrNo(location(__LINE__), 22,
                                     "The start record of the sub-tree is NULL");
    }
    WzScanDBRecordBasePtr rootCopy = start->Clone();
    bool found = false;
    CKoError err = checkDBRecord(start, rootCopy, found);
    if (err.IsError()) {
      return err.Push(location(walk.lookupFailedLine), kLookupFailedText,
                      start->toString().c_str());
    }
    if (!found) {
      return FXErrorUtil::ErrorErrNo(location(walk.notPresentLine), 2, kNotPresentText,
                                     start->toString().c_str());
    }

    folders.clear();
    walkStart = rootCopy;
    recordIdentity().read(*rootCopy, id);
    int error = folders.push(id);
    if (paths) {
      prefixes.clear();
      if (!error) error = prefixes.push(std::string());
    }
    if (error) return queueFailed(error);

    const int flags = rootCopy->getFlags();
    if (walk.marks && withVisited(flags, validate) != flags) {
      rootCopy->setFlags(withVisited(flags, validate));
      err = updateDBRecord(rootCopy);
      if (err.IsError()) {
        if (validate) {
          return err.Push(location(walk.startSetFailedLine), walk.startSetFailedText,
                          start->toString().c_str());
        }
        return err.Push(location(walk.startClearFailedLine), walk.startClearFailedText,
                        start->toString().c_str());
      }
    }
  }
  if (folders.empty()) return CKoError();

  const RecordIdentity& identity = recordIdentity();
  std::string startId;
  identity.read(*walkStart, startId);
  const char* flagWord = validate ? walk.flagSetWord : walk.flagClearWord;
  std::vector<WzScanDBRecordBasePtr> children;
  std::string prefix;
  std::string childPrefix;
  // The record that stands for each waiting folder in turn.
  WzScanDBRecordBasePtr stand;

  while (!folders.empty()) {
    int error = folders.pop(id);
    prefix.clear();
    if (!error && paths && !prefixes.empty()) error = prefixes.pop(prefix);
    if (error) return queueFailed(error);

    WzScanDBRecordBasePtr folder = walkStart;
    if (id != startId) {
      if (!stand) stand = BlankRecordLike(*walkStart);
      identity.write(id, *stand);
      stand->setStructure(stand->getStructure());
      folder = stand;
    }

    CKoError err = getChildren(folder, children);
    if (err.IsError()) {
      return err.Push(location(walk.childrenFailedLine), kChildrenFailedText,
                      folder->toString().c_str());
    }

    // The children list is this call's own: each child moves on to `records`.
    const int count = static_cast<int>(children.size());
    for (int i = 0; i < count; ++i) {
      if (children[i]->isDir() && identity.matches(*children[i], startId)) {
        folders.clear();
        if (paths) prefixes.clear();
        return FXErrorUtil::ErrorErrNo(
            location(__LINE__), 40,
            "The record %s is its own descendant: its parent links form a cycle",
            children[i]->toString().c_str());
      }
      records.push_back(std::move(children[i]));
      const WzScanDBRecordBasePtr& child = records.back();
      if (paths) pathSlots.append(prefix, child->getName());

      if (child->isDir()) {
        identity.read(*child, id);
        error = folders.push(id);
        if (!error && paths) {
          // Room for the delimiter, so that appending it does not reallocate.
          const std::string& path = pathSlots.last();
          childPrefix.reserve(path.size() + 1);
          childPrefix.assign(path);
          FXPath::AppendTrailingDelimiter(childPrefix);
          error = prefixes.push(childPrefix);
        }
        if (error) return queueFailed(error);
      }
      const int flags = child->getFlags();
      const bool changed = walk.marks && withVisited(flags, validate) != flags;
      if (changed) {
        child->setFlags(withVisited(flags, validate));
        err = updateDBRecord(child);
        if (err.IsError()) {
          return err.Push(location(walk.childWriteFailedLine), walk.childWriteFailedText,
                          child->toString().c_str(), flagWord);
        }
      }
    }
    children.clear();

    if (walk.batched && maxItems < static_cast<int>(records.size())) return CKoError();
  }
  return CKoError();
}
