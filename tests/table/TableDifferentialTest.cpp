// Randomized differential test: thousands of random operations on the engine
// and on TableModel, comparing every status and every record read. Close and
// reopen, suspend and rebuild happen in the middle.
//
// WZ_TABLE_DIFF_SEED and WZ_TABLE_DIFF_OPS override the fixed seed and the
// operation count (scripts/table-differential-soak.sh runs long ones).
#include <gtest/gtest.h>

#include <cstdlib>
#include <random>

#include "TableModel.h"
#include "support/TempDir.h"

using namespace tabletest;

namespace {

uint64_t envOr(const char* name, uint64_t fallback) {
  const char* text = std::getenv(name);
  return text && *text ? std::strtoull(text, nullptr, 0) : fallback;
}

// Random records of either schema, drawn from small pools so that keys clash,
// share parents, and share 56-byte name prefixes.
class Generator {
 public:
  Generator(bool generic, uint64_t seed) : generic_(generic), rng_(seed) {
    for (int i = 0; i < 300; ++i) guids_.push_back(randomBytes(16));
    parents_.push_back(Image(16, 0));
    for (int i = 0; i < 5; ++i) parents_.push_back(randomBytes(16));
    ids_ = {0, 1, 0x41, 0x61, 0x100, ~0ull, 1ull << 63};
    while (ids_.size() < 300) ids_.push_back(rng_());
    inodes_ = {0, 0x41, 0x61, 0x100, 0x10000, 0xFFFFFFFF};
    while (inodes_.size() < 60) inodes_.push_back(uint32_t(rng_() % 5000));
  }

  uint64_t below(uint64_t n) { return n ? rng_() % n : 0; }
  bool chance(int percent) { return below(100) < uint64_t(percent); }
  Image randomBytes(size_t n) {
    Image out(n);
    for (auto& b : out) b = uint8_t(rng_());
    return out;
  }

  std::string name() {
    static const std::string kPrefixes[] = {std::string(56, 'p'), "shared-prefix-" + std::string(42, 'x')};
    std::string s;
    switch (below(6)) {
      case 0: return s;
      case 1:
      case 2:
        for (size_t i = 0, n = 1 + below(8); i < n; ++i) s.push_back("aAbBzZ09._"[below(10)]);
        return s;
      case 3:
      case 4:
        s = kPrefixes[below(2)];
        for (size_t i = 0, n = below(4); i < n; ++i) s.push_back("abAB"[below(4)]);
        return s;
      default: return std::string(255, char('a' + below(3)));
    }
  }

  Image record() {
    Image image(generic_ ? 440 : 64, 0);
    mutateKey(image);
    mutateTree(image);
    mutateAttributes(image);
    return image;
  }
  void mutateKey(Image& image) {
    if (generic_) std::memcpy(image.data(), guids_[below(guids_.size())].data(), 16);
    else std::memcpy(image.data(), &ids_[below(ids_.size())], 8);
  }
  // The (parent, name) part, or in the small schema group, inode and name.
  void mutateTree(Image& image) {
    if (generic_) {
      std::memcpy(image.data() + 16, parents_[below(parents_.size())].data(), 16);
      putName(image, 181, 255, name());
    } else {
      const uint64_t group = below(4);
      std::memcpy(image.data() + 8, &group, 8);
      std::memcpy(image.data() + 16, &inodes_[below(inodes_.size())], 4);
      putName(image, 24, 40, name().substr(0, 20 + below(30)));
    }
  }
  void mutateAttributes(Image& image) {
    if (generic_) {
      const Image stat = chance(50) ? randomBytes(144) : Image(144, 0);
      std::memcpy(image.data() + 32, stat.data(), 144);
      const uint32_t ref = uint32_t(rng_());
      std::memcpy(image.data() + 176, &ref, 4);
      image[180] = uint8_t(rng_());
      for (int i = 436; i < 440; ++i) image[i] = chance(10) ? uint8_t(rng_()) : 0;
    } else {
      image[20] = uint8_t(rng_());
      for (int i = 21; i < 24; ++i) image[i] = chance(20) ? uint8_t(rng_()) : 0;
    }
  }

 private:
  void putName(Image& image, size_t offset, size_t length, const std::string& n) {
    std::memset(image.data() + offset, 0, length);
    std::memcpy(image.data() + offset, n.data(), std::min(n.size(), length));
    // Now and then a byte after the terminator, which keys and images keep.
    if (n.size() + 2 < length && chance(5)) image[offset + n.size() + 1] = uint8_t(rng_());
  }

  bool generic_;
  std::mt19937_64 rng_;
  std::vector<Image> guids_, parents_;
  std::vector<uint64_t> ids_;
  std::vector<uint32_t> inodes_;
};

class Differential {
 public:
  Differential(const SchemaLayout& layout, bool generic, uint64_t seed)
      : layout_(layout), model_(layout), gen_(generic, seed), buffer_(layout.recordSize) {
    EXPECT_EQ(createTable(table_, dir_ / "diff", layout_), TBL_OK);
  }

  void run(uint64_t ops) {
    for (uint64_t op = 0; op < ops && !::testing::Test::HasFailure(); ++op) {
      trace_ = "op " + std::to_string(op);
      const uint64_t pick = gen_.below(1000);
      if (pick < 300) add();
      else if (pick < 400) modify();
      else if (pick < 470) ASSERT_EQ(table_.deleteRecord(), model_.remove()) << trace_ << " delete";
      else if (pick < 650) keyed();
      else if (pick < 720) edge();
      else if (pick < 860) step();
      else if (pick < 950) setRead();
      else if (pick < 990) byNumber();
      else if (pick < 994) reopen();
      else if (pick < 997) suspendOrResume();
      else checkAll();
    }
    if (model_.suspended()) resume();
    checkAll();
    reopen();
    checkAll();
    // The run must have compared many records and met the interesting cases.
    EXPECT_GT(statusCounts_[TBL_OK], ops / 4);
    EXPECT_GT(statusCounts_[TBL_NOT_FOUND], ops / 100);
    EXPECT_GT(statusCounts_[-1], ops / 20);                    // records added
    EXPECT_GT(statusCounts_[-TBL_DUPLICATE_KEY], ops / 1000);  // unique clashes
    EXPECT_GT(rebuilds_, 0u);
  }

 private:
  int randomIndex(bool physical) {
    const int n = int(layout_.indexes.size());
    return physical ? int(gen_.below(n + 1)) - 1 : int(gen_.below(n));
  }

  // Some record of the model, or a fresh random one.
  Image someImage() {
    const auto& records = model_.records();
    if (records.empty() || gen_.chance(25)) return gen_.record();
    auto it = records.lower_bound(1 + gen_.below(records.rbegin()->first));
    return it == records.end() ? records.begin()->second : it->second;
  }

  void expectRead(const char* what, int got, int want, uint64_t wantRecno) {
    ASSERT_EQ(got, want) << trace_ << " " << what;
    ++statusCounts_[got];
    if (got != TBL_OK) return;
    const auto& image = model_.records().at(wantRecno);
    ASSERT_EQ(std::memcmp(buffer_.data(), image.data(), image.size()), 0)
        << trace_ << " " << what << " record " << wantRecno;
    ASSERT_EQ(table_.currentRecordNumber(), int64_t(wantRecno)) << trace_ << " " << what;
  }

  void add() {
    auto image = gen_.record();
    const int want = model_.add(image);
    ASSERT_EQ(table_.addRecord(image.data()), want) << trace_ << " add";
    ++statusCounts_[want == TBL_OK ? -1 : -want];
  }

  void modify() {
    auto it = model_.records().find(model_.currentRecno());
    Image image = it == model_.records().end() ? gen_.record() : it->second;
    if (gen_.chance(40)) gen_.mutateTree(image);
    if (gen_.chance(25)) gen_.mutateKey(image);
    gen_.mutateAttributes(image);
    const int want = model_.modify(image);
    ASSERT_EQ(table_.modifyRecord(image.data()), want) << trace_ << " modify";
  }

  Image searchKey(int index) {
    auto image = someImage();
    int status = 0;
    auto key = engineKey(table_, layout_, index, image.data(), &status);
    EXPECT_EQ(status, TBL_OK);
    EXPECT_EQ(std::string(key.begin(), key.end()), model_.keyOf(image, index)) << trace_ << " key";
    if (gen_.chance(20)) {
      // A key between stored ones: nudge its last non-zero byte.
      for (size_t i = key.size(); i-- > 0;)
        if (key[i]) {
          key[i] = uint8_t(key[i] + (gen_.chance(50) ? 1 : -1));
          break;
        }
    }
    return key;
  }

  void keyed() {
    static const char* const kNames[] = {"getRecord", "getGTERecord", "getGTRecord", "getLTERecord",
                                         "getLTRecord"};
    using Read = int (TCtreeTable::*)(int, void*, void*);
    static const Read kReads[] = {&TCtreeTable::getRecord, &TCtreeTable::getGTERecord,
                                  &TCtreeTable::getGTRecord, &TCtreeTable::getLTERecord,
                                  &TCtreeTable::getLTRecord};
    const int index = randomIndex(false);
    auto key = searchKey(index);
    const int mode = int(gen_.below(5));
    uint64_t recno = 0;
    const int want = model_.keyed(index, std::string(key.begin(), key.end()), TableModel::Keyed(mode), &recno);
    expectRead(kNames[mode], (table_.*kReads[mode])(index, key.data(), buffer_.data()), want, recno);
  }

  void edge() {
    const int index = randomIndex(true);
    const bool first = gen_.chance(50);
    uint64_t recno = 0;
    const int want = model_.edge(index, first, &recno);
    const int got = first ? table_.firstRecord(index, buffer_.data()) : table_.lastRecord(index, buffer_.data());
    expectRead(first ? "firstRecord" : "lastRecord", got, want, recno);
  }

  // A few steps in one direction, as callers iterate.
  void step() {
    const int index = randomIndex(true);
    const bool forward = gen_.chance(60);
    for (int s = 0, steps = 1 + int(gen_.below(6)); s < steps; ++s) {
      uint64_t recno = 0;
      const int want = model_.step(index, forward, false, &recno);
      const int got = forward ? table_.nextRecord(index, buffer_.data()) : table_.previousRecord(index, buffer_.data());
      expectRead(forward ? "nextRecord" : "previousRecord", got, want, recno);
      if (got != TBL_OK) break;
    }
  }

  void setRead() {
    const int index = randomIndex(false);
    const auto& ix = layout_.indexes[index];
    auto key = searchKey(index);
    const int lengths[] = {0, 1, ix.keyLength / 3, ix.keyLength / 2, ix.keyLength - 1, ix.keyLength};
    int prefix = lengths[gen_.below(6)];
    if (ix.numSegments > 1 && gen_.chance(50)) prefix = layout_.segments[ix.firstSegment].size;
    uint64_t recno = 0;
    const bool first = gen_.chance(50);
    int want = model_.setEdge(index, std::string(key.begin(), key.begin() + prefix), first, &recno);
    int got = first ? table_.firstInSet(index, key.data(), buffer_.data(), prefix)
                    : table_.lastInSet(index, key.data(), buffer_.data(), prefix);
    expectRead(first ? "firstInSet" : "lastInSet", got, want, recno);
    const bool forward = gen_.chance(50);
    for (int s = 0; s < 4 && got == TBL_OK; ++s) {
      want = model_.step(index, forward, true, &recno);
      got = forward ? table_.nextInSet(index, buffer_.data()) : table_.previousInSet(index, buffer_.data());
      expectRead(forward ? "nextInSet" : "previousInSet", got, want, recno);
    }
  }

  void byNumber() {
    const auto& records = model_.records();
    const uint64_t recno = 1 + gen_.below(records.empty() ? 3 : records.rbegin()->first + 2);
    const int want = model_.byNumber(recno);
    expectRead("readByOffset", table_.readByOffset(buffer_.data(), int(recno), int(buffer_.size())),
               want, recno);
  }

  void reopen() {
    ASSERT_EQ(table_.close(), TBL_OK) << trace_;
    model_.closed();
    // Small sort memory now and then, so that a rebuild at open spills runs.
    if (gen_.chance(50)) table_.setRebuildMemoryLimit(4096 + gen_.below(8192));
    ASSERT_EQ(table_.open(WZIndexing::kAccessReadWrite), TBL_OK) << trace_ << " reopen";
    if (model_.suspended()) model_.rebuild();
    ASSERT_EQ(table_.numberOfRecords(), int64_t(model_.records().size())) << trace_;
  }

  void resume() {
    ++rebuilds_;
    const int got = table_.resumeIndexingAndRebuild();
    ASSERT_EQ(got, model_.rebuild()) << trace_ << " resume";
    if (got != TBL_DUPLICATE_KEY) return;
    // Nothing was lost: remove the clashing records through the physical
    // order, then the rebuild succeeds.
    for (uint64_t recno : model_.clashingRecords()) {
      ASSERT_EQ(table_.readByOffset(buffer_.data(), int(recno), int(buffer_.size())), TBL_OK);
      model_.byNumber(recno);
      ASSERT_EQ(table_.deleteRecord(), model_.remove());
    }
    ASSERT_EQ(table_.resumeIndexingAndRebuild(), model_.rebuild()) << trace_ << " resume again";
  }

  void suspendOrResume() {
    if (model_.suspended()) return resume();
    ASSERT_NE(table_.suspendIndexing(), -1) << trace_;
    model_.suspend();
  }

  void checkAll() {
    if (model_.suspended()) return;
    std::string report;
    ASSERT_EQ(table_.checkConsistency(&report), TBL_OK) << trace_ << " " << report;
    ASSERT_EQ(table_.numberOfRecords(), int64_t(model_.records().size())) << trace_;
    // The physical walk returns every record, in record-number order.
    uint64_t recno = 0;
    int want = model_.edge(-1, true, &recno), got = table_.firstRecord(-1, buffer_.data());
    size_t seen = 0;
    for (;; ++seen) {
      expectRead("physical walk", got, want, recno);
      if (got != TBL_OK) break;
      want = model_.step(-1, true, false, &recno);
      got = table_.nextRecord(-1, buffer_.data());
    }
    ASSERT_EQ(seen, model_.records().size());
  }

  TempDir dir_;
  SchemaLayout layout_;
  TableModel model_;
  Generator gen_;
  TCtreeTable table_;
  Image buffer_;
  std::string trace_;
  std::map<int, uint64_t> statusCounts_;  // reads by status; adds by -status (-1: added)
  uint64_t rebuilds_ = 0;
};

}  // namespace

TEST(TableDifferential, GenericRecordSchemaMatchesModel) {
  const uint64_t seed = envOr("WZ_TABLE_DIFF_SEED", 20261122);
  SCOPED_TRACE("seed " + std::to_string(seed));
  Differential(SchemaLayout::generic(), true, seed).run(envOr("WZ_TABLE_DIFF_OPS", 20000));
}

// Integer keys (big-endian), a case-insensitive name segment, a type-12
// integer index.
TEST(TableDifferential, IntegerAndCaseInsensitiveSchemaMatchesModel) {
  const uint64_t seed = envOr("WZ_TABLE_DIFF_SEED", 77) + 1;
  SCOPED_TRACE("seed " + std::to_string(seed));
  Differential(smallSchema(), false, seed).run(envOr("WZ_TABLE_DIFF_OPS", 20000));
}
