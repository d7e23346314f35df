// Randomized differential test: thousands of random operations on the engine
// and on TableModel, comparing every status and every record read. Close and
// reopen, suspend and rebuild happen in the middle.
//
// WZ_TABLE_DIFF_SEED and WZ_TABLE_DIFF_OPS override the fixed seed and the
// operation count (scripts/table-differential-soak.sh runs long ones).
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "TableModel.h"
#include "TableSchemas.h"
#include "support/TempDir.h"
#include "table/TCtreeTable.h"

using namespace tabletest;

namespace {

uint64_t envOr(const char* name, uint64_t fallback) {
  const char* text = std::getenv(name);
  return text && *text ? std::strtoull(text, nullptr, 0) : fallback;
}

class Generator {
 public:
  Generator(const SchemaLayout& layout, bool generic, uint64_t seed)
      : layout_(layout), generic_(generic), rng_(seed) {
    for (int i = 0; i < 300; ++i) guids_.push_back(randomBytes(16));
    parents_.push_back(std::vector<uint8_t>(16, 0));
    for (int i = 0; i < 5; ++i) parents_.push_back(randomBytes(16));
    prefixes_.push_back(std::string(56, 'p'));
    prefixes_.push_back("shared-prefix-" + std::string(42, 'x'));
    ids_ = {0, 1, 0x41, 0x61, 0x100, 0xFFFFFFFFFFFFFFFFull, 0x8000000000000000ull};
    while (ids_.size() < 300) ids_.push_back(rng_());
    inodes_ = {0, 0x41, 0x61, 0x100, 0x10000, 0xFFFFFFFF};
    while (inodes_.size() < 60) inodes_.push_back(static_cast<uint32_t>(rng_() % 5000));
  }

  uint64_t below(uint64_t n) { return n ? rng_() % n : 0; }
  bool chance(int percent) { return below(100) < static_cast<uint64_t>(percent); }

  std::vector<uint8_t> randomBytes(size_t n) {
    std::vector<uint8_t> out(n);
    for (auto& b : out) b = static_cast<uint8_t>(rng_());
    return out;
  }

  std::string name() {
    switch (below(6)) {
      case 0: return "";
      case 1:
      case 2: {
        std::string s;
        size_t n = 1 + below(8);
        for (size_t i = 0; i < n; ++i) s.push_back("aAbBzZ09._"[below(10)]);
        return s;
      }
      case 3:
      case 4: {
        std::string s = prefixes_[below(prefixes_.size())];
        size_t n = below(4);
        for (size_t i = 0; i < n; ++i) s.push_back("abAB"[below(4)]);
        return s;
      }
      default:
        return std::string(255, static_cast<char>('a' + below(3)));
    }
  }

  void putName(std::vector<uint8_t>& image, size_t offset, size_t length, const std::string& n) {
    std::memset(image.data() + offset, 0, length);
    std::memcpy(image.data() + offset, n.data(), std::min(n.size(), length));
    // Now and then bytes after the terminator, which keys and images keep.
    if (n.size() + 2 < length && chance(5)) image[offset + n.size() + 1] = static_cast<uint8_t>(rng_());
  }

  std::vector<uint8_t> record() {
    std::vector<uint8_t> image(layout_.recordSize, 0);
    if (generic_) {
      const auto& guid = guids_[below(guids_.size())];
      std::memcpy(image.data(), guid.data(), 16);
      mutateTree(image);
      mutateAttributes(image);
    } else {
      putU64(image, 0, ids_[below(ids_.size())]);
      mutateTree(image);
      mutateAttributes(image);
    }
    return image;
  }

  // Changes the (parent, name) part or, in the small schema, group, name and inode.
  void mutateTree(std::vector<uint8_t>& image) {
    if (generic_) {
      std::memcpy(image.data() + 16, parents_[below(parents_.size())].data(), 16);
      putName(image, 181, 255, name());
    } else {
      putU64(image, 8, below(4));
      uint32_t inode = inodes_[below(inodes_.size())];
      std::memcpy(image.data() + 16, &inode, 4);
      putName(image, 24, 40, name().substr(0, 20 + below(30)));
    }
  }

  void mutateKey(std::vector<uint8_t>& image) {
    if (generic_) std::memcpy(image.data(), guids_[below(guids_.size())].data(), 16);
    else putU64(image, 0, ids_[below(ids_.size())]);
  }

  void mutateAttributes(std::vector<uint8_t>& image) {
    if (generic_) {
      if (chance(50)) {
        auto stat = randomBytes(144);
        std::memcpy(image.data() + 32, stat.data(), 144);
      } else {
        std::memset(image.data() + 32, 0, 144);
      }
      uint32_t ref = static_cast<uint32_t>(rng_());
      std::memcpy(image.data() + 176, &ref, 4);
      image[180] = static_cast<uint8_t>(rng_());
      for (int i = 436; i < 440; ++i) image[i] = chance(10) ? static_cast<uint8_t>(rng_()) : 0;
    } else {
      image[20] = static_cast<uint8_t>(rng_());
      for (int i = 21; i < 24; ++i) image[i] = chance(20) ? static_cast<uint8_t>(rng_()) : 0;
    }
  }

 private:
  static void putU64(std::vector<uint8_t>& image, size_t at, uint64_t v) {
    std::memcpy(image.data() + at, &v, 8);
  }

  const SchemaLayout layout_;  // a copy: callers pass temporaries
  bool generic_;
  std::mt19937_64 rng_;
  std::vector<std::vector<uint8_t>> guids_, parents_;
  std::vector<std::string> prefixes_;
  std::vector<uint64_t> ids_;
  std::vector<uint32_t> inodes_;
};

class Differential {
 public:
  Differential(const SchemaLayout& layout, bool generic, uint64_t seed)
      : layout_(layout), model_(layout), gen_(layout, generic, seed), name_(dir_ / "diff") {
    EXPECT_EQ(defineSchema(table_, name_, layout_), TBL_OK);
    EXPECT_EQ(table_.create(), TBL_OK);
    buffer_.resize(layout_.recordSize);
  }

  void run(uint64_t ops) {
    for (uint64_t op = 0; op < ops && !::testing::Test::HasFailure(); ++op) {
      trace_ = "op " + std::to_string(op);
      const uint64_t pick = gen_.below(1000);
      if (pick < 300) add();
      else if (pick < 400) modify();
      else if (pick < 470) remove();
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
    EXPECT_GT(statusCounts_[-1], ops / 20);                  // records added
    EXPECT_GT(statusCounts_[-TBL_DUPLICATE_KEY], ops / 1000);  // unique clashes
    EXPECT_GT(rebuilds_, 0u);
  }

 private:
  int randomIndex(bool physical) {
    int n = static_cast<int>(layout_.indexes.size());
    return physical ? static_cast<int>(gen_.below(n + 1)) - 1 : static_cast<int>(gen_.below(n));
  }

  // Some record of the model, or a fresh random one.
  TableModel::Image someImage() {
    const auto& records = model_.records();
    if (records.empty() || gen_.chance(25)) return gen_.record();
    auto it = records.lower_bound(1 + gen_.below(records.rbegin()->first));
    if (it == records.end()) it = records.begin();
    return it->second;
  }

  // Compares an engine read with the model's expectation.
  void expectRead(const char* what, int got, int want, uint64_t wantRecno) {
    ASSERT_EQ(got, want) << trace_ << " " << what;
    ++statusCounts_[got];
    if (got != TBL_OK) return;
    const auto& image = model_.records().at(wantRecno);
    ASSERT_EQ(std::memcmp(buffer_.data(), image.data(), image.size()), 0)
        << trace_ << " " << what << " record " << wantRecno;
    ASSERT_EQ(table_.currentRecordNumber(), static_cast<int64_t>(wantRecno)) << trace_ << " " << what;
  }

  void add() {
    auto image = gen_.record();
    uint64_t recno = 0;
    int want = model_.add(image, &recno);
    ASSERT_EQ(table_.addRecord(image.data()), want) << trace_ << " add";
    ++statusCounts_[want == TBL_OK ? -1 : -want];
  }

  void modify() {
    TableModel::Image image;
    auto it = model_.records().find(model_.currentRecno());
    image = it == model_.records().end() ? gen_.record() : it->second;
    if (gen_.chance(40)) gen_.mutateTree(image);
    if (gen_.chance(25)) gen_.mutateKey(image);
    gen_.mutateAttributes(image);
    int want = model_.modify(image);
    ASSERT_EQ(table_.modifyRecord(image.data()), want) << trace_ << " modify";
  }

  void remove() {
    int want = model_.remove();
    ASSERT_EQ(table_.deleteRecord(), want) << trace_ << " delete";
  }

  std::vector<uint8_t> searchKey(int index) {
    auto image = someImage();
    int status = 0;
    auto key = engineKey(table_, layout_, index, image.data(), &status);
    EXPECT_EQ(status, TBL_OK);
    std::string modelKey = model_.keyOf(image, index);
    EXPECT_EQ(std::string(key.begin(), key.end()), modelKey) << trace_ << " key transform";
    if (gen_.chance(20)) {
      // A key between stored ones: nudge its last non-zero byte.
      for (size_t i = key.size(); i-- > 0;)
        if (key[i]) {
          key[i] = static_cast<uint8_t>(key[i] + (gen_.chance(50) ? 1 : -1));
          break;
        }
    }
    return key;
  }

  void keyed() {
    static const char* const kNames[] = {"getRecord", "getGTERecord", "getGTRecord",
                                         "getLTERecord", "getLTRecord"};
    const int index = randomIndex(false);
    auto key = searchKey(index);
    const std::string k(key.begin(), key.end());
    const int mode = static_cast<int>(gen_.below(5));
    uint64_t recno = 0;
    const int want = model_.keyed(index, k, static_cast<TableModel::Keyed>(mode), &recno);
    int got;
    switch (mode) {
      case TableModel::kEqual: got = table_.getRecord(index, key.data(), buffer_.data()); break;
      case TableModel::kGTE: got = table_.getGTERecord(index, key.data(), buffer_.data()); break;
      case TableModel::kGT: got = table_.getGTRecord(index, key.data(), buffer_.data()); break;
      case TableModel::kLTE: got = table_.getLTERecord(index, key.data(), buffer_.data()); break;
      default: got = table_.getLTRecord(index, key.data(), buffer_.data()); break;
    }
    expectRead(kNames[mode], got, want, recno);
  }

  void edge() {
    const int index = randomIndex(true);
    const bool first = gen_.chance(50);
    uint64_t recno = 0;
    const int want = model_.edge(index, first, &recno);
    const int got = first ? table_.firstRecord(index, buffer_.data())
                          : table_.lastRecord(index, buffer_.data());
    expectRead(first ? "firstRecord" : "lastRecord", got, want, recno);
  }

  void step() {
    const int index = randomIndex(true);
    // Walk a few steps in one direction, as callers iterate.
    const bool forward = gen_.chance(60);
    const int steps = 1 + static_cast<int>(gen_.below(6));
    for (int s = 0; s < steps; ++s) {
      uint64_t recno = 0;
      int want = model_.step(index, forward, false, &recno);
      int got = forward ? table_.nextRecord(index, buffer_.data())
                        : table_.previousRecord(index, buffer_.data());
      expectRead(forward ? "nextRecord" : "previousRecord", got, want, recno);
      if (got != TBL_OK) break;
    }
  }

  void setRead() {
    const int index = randomIndex(false);
    const int keyLength = layout_.indexes[index].keyLength;
    auto key = searchKey(index);
    const int lengths[] = {0, 1, keyLength / 3, keyLength / 2, keyLength - 1, keyLength};
    int prefix = lengths[gen_.below(6)];
    if (layout_.indexes[index].numSegments > 1 && gen_.chance(50)) prefix = layout_.segments[layout_.indexes[index].firstSegment].size;
    std::string p(key.begin(), key.begin() + prefix);
    uint64_t recno = 0;
    const bool first = gen_.chance(50);
    int want = model_.setEdge(index, p, first, &recno);
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
    uint64_t limit = records.empty() ? 3 : records.rbegin()->first + 2;
    uint64_t recno = 1 + gen_.below(limit);
    const int want = model_.byNumber(recno);
    const int got = table_.readByOffset(buffer_.data(), static_cast<int>(recno),
                                        static_cast<int>(buffer_.size()));
    expectRead("readByOffset", got, want, recno);
  }

  void reopen() {
    ASSERT_EQ(table_.close(), TBL_OK) << trace_;
    model_.closed();
    if (gen_.chance(50)) table_.setRebuildMemoryLimit(4096 + gen_.below(8192));
    ASSERT_EQ(table_.open(WZIndexing::kAccessReadWrite), TBL_OK) << trace_ << " reopen";
    if (model_.suspended()) model_.rebuild();
    int64_t count = table_.numberOfRecords();
    ASSERT_EQ(count, static_cast<int64_t>(model_.records().size())) << trace_;
  }

  void resume() {
    ++rebuilds_;
    int want = model_.rebuild();
    int got = table_.resumeIndexingAndRebuild();
    ASSERT_EQ(got, want) << trace_ << " resume";
    if (got == TBL_DUPLICATE_KEY) {
      // Nothing was lost: remove the clashing records through the physical
      // order, then the rebuild succeeds.
      for (uint64_t recno : model_.clashingRecords()) {
        ASSERT_EQ(table_.readByOffset(buffer_.data(), static_cast<int>(recno),
                                      static_cast<int>(buffer_.size())),
                  TBL_OK);
        model_.byNumber(recno);
        ASSERT_EQ(table_.deleteRecord(), model_.remove());
      }
      ASSERT_EQ(table_.resumeIndexingAndRebuild(), model_.rebuild()) << trace_ << " resume again";
    }
  }

  void suspendOrResume() {
    if (model_.suspended()) {
      resume();
    } else {
      ASSERT_NE(table_.suspendIndexing(), -1) << trace_;
      model_.suspend();
    }
  }

  void checkAll() {
    if (model_.suspended()) return;
    std::string report;
    ASSERT_EQ(table_.checkConsistency(&report), TBL_OK) << trace_ << " " << report;
    ASSERT_EQ(table_.numberOfRecords(), static_cast<int64_t>(model_.records().size())) << trace_;
    // The physical walk returns every record, in record-number order.
    uint64_t recno = 0;
    int want = model_.edge(-1, true, &recno);
    int got = table_.firstRecord(-1, buffer_.data());
    size_t seen = 0;
    while (true) {
      expectRead("physical walk", got, want, recno);
      if (got != TBL_OK) break;
      ++seen;
      want = model_.step(-1, true, false, &recno);
      got = table_.nextRecord(-1, buffer_.data());
    }
    ASSERT_EQ(seen, model_.records().size());
  }

  TempDir dir_;
  SchemaLayout layout_;
  TableModel model_;
  Generator gen_;
  std::string name_;
  TCtreeTable table_;
  std::vector<uint8_t> buffer_;
  std::string trace_;
  std::map<int, uint64_t> statusCounts_;  // reads by status; adds by -status (-1: added)
  uint64_t rebuilds_ = 0;
};

}  // namespace

TEST(TableDifferential, GenericRecordSchemaMatchesModel) {
  const uint64_t seed = envOr("WZ_TABLE_DIFF_SEED", 20261122);
  const uint64_t ops = envOr("WZ_TABLE_DIFF_OPS", 20000);
  SCOPED_TRACE("seed " + std::to_string(seed));
  Differential run(genericSchema(), true, seed);
  run.run(ops);
}

TEST(TableDifferential, IntegerAndCaseInsensitiveSchemaMatchesModel) {
  const uint64_t seed = envOr("WZ_TABLE_DIFF_SEED", 77) + 1;
  const uint64_t ops = envOr("WZ_TABLE_DIFF_OPS", 20000);
  SCOPED_TRACE("seed " + std::to_string(seed));
  Differential run(smallSchema(), false, seed);
  run.run(ops);
}
