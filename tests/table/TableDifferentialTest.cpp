// Randomized differential test: thousands of random operations on the engine
// and on TableModel, comparing every status, every record read, the current
// record after each read and every key the engine builds. Reads of every
// kind (keyed, edges, steps, prefix sets, prefix runs through readRun, by
// record number), now and then in bypass mode; close and reopen, suspend and
// rebuild (in a few KiB of sort memory, so that runs spill) happen in the
// middle.
//
// WZ_TABLE_DIFF_SEED and WZ_TABLE_DIFF_OPS override the fixed seed and the
// operation count (scripts/table-differential-soak.sh runs long ones).
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <random>

#include "TableTestUtil.h"
#include "runtime/LogCapture.h"
#include "support/TempDir.h"

using namespace tabletest;

namespace {

uint64_t envOr(const char* name, uint64_t fallback) {
  const char* text = std::getenv(name);
  return text && *text ? std::strtoull(text, nullptr, 0) : fallback;
}

// Also readRun's receiver: takes records into a list; refuses the
// `refuseAt_`th (0: none).
class Differential : public TCtreeTable::RunReceiver {
 public:
  // Random records of the schema: the fields of the unique index 0 come from
  // a pool of 300 values, the other integer and binary key fields from pools
  // of 6 (among them integers whose bytes are letters or sign bits: never
  // folded, never signed), so that keys clash.
  Differential(const SchemaLayout& layout, uint64_t seed)
      : layout_(layout), model_(layout), rng_(seed), pools_(layout.fields.size()), buffer_(layout.recordSize) {
    EXPECT_EQ(openTable(table_, name_, layout_, WZIndexing::kAccessCreate), TBL_OK);
    for (const auto& segment : layout.segments) {
      const auto& field = layout.fields[segment.field];
      auto& pool = pools_[segment.field];
      for (uint64_t v : {0ull, 0x41ull, 0x61ull, 0x100ull, ~0ull, 1ull << 63})
        if (field.type != kFieldString) pool.emplace_back((uint8_t*)&v, (uint8_t*)&v + 8).resize(field.length);
      for (Image value(field.length); !pool.empty() && pool.size() < (segment.field ? 6u : 300u); pool.push_back(value))
        for (auto& b : value) b = uint8_t(rng_());
    }
  }

  void run(uint64_t ops) {
    for (uint64_t op = 0; op < ops && !::testing::Test::HasFailure(); ++op) {
      trace_ = "op " + std::to_string(op);
      const uint64_t pick = below(1000);
      if (pick < 470) write(pick < 300, pick >= 400);
      else if (pick < 780) keyedRead();
      else if (pick < 985) walk();
      else if (pick < 989) reopen();
      else if (pick < 992) model_.suspended ? resume() : suspend();
      else if (pick < 995) table_.setBypassMode(model_.bypass = !model_.bypass);
      else checkAll();
    }
    if (model_.suspended) resume();
    checkAll();
    reopen();
    checkAll();
    // The run must have compared many records and met the interesting cases:
    // reads finding nothing, records added, unique clashes, rebuilds.
    EXPECT_TRUE(counts_[TBL_OK] > ops / 4 && counts_[TBL_NOT_FOUND] > ops / 100 && counts_[-1] > ops / 20 &&
                counts_[-TBL_DUPLICATE_KEY] > ops / 1000 && counts_[-2] > 0);
  }

 private:
  void* buffer() override { return run_.emplace_back(layout_.recordSize, 0xEE).data(); }
  bool take() override { return run_.size() != refuseAt_; }
  uint64_t below(uint64_t n) { return n ? rng_() % n : 0; }
  bool chance(int percent) { return below(100) < uint64_t(percent); }

  // Empty, short, 255 bytes, or sharing a 56-byte prefix (a whole name key).
  std::string name() {
    static const std::string kStems[] = {"", std::string(56, 'p'), "shared-prefix-" + std::string(42, 'x')};
    if (chance(15)) return std::string(255, char('a' + below(3)));
    std::string s = kStems[below(3)];
    for (size_t i = 0, n = below(9); i < n; ++i) s.push_back("aAbBzZ09._"[below(10)]);
    return s;
  }

  // A part of a record: kKey the fields of index 0; kTree the other key
  // fields (names now and then with a byte after their terminator, which
  // keys and images keep); kAttributes the other fields, half the time zeros.
  enum Part { kKey, kTree, kAttributes };
  void mutate(Image& image, Part part) {
    for (size_t f = 0; f < layout_.fields.size(); ++f) {
      const auto& field = layout_.fields[f];
      const bool string = field.type == kFieldString, keyed = string || !pools_[f].empty(), zeros = chance(50);
      if ((f == 0 ? kKey : keyed ? kTree : kAttributes) != part) continue;
      const std::string n = name();
      const Image value = keyed && !string ? pools_[f][below(pools_[f].size())] : Image(n.begin(), n.end());
      for (size_t b = 0; b < size_t(field.length); ++b)
        image[field.offset + b] = keyed ? (b < value.size() ? value[b] : 0) : zeros ? 0 : uint8_t(rng_());
      if (string && n.size() + 2 < size_t(field.length) && chance(5)) image[field.offset + n.size() + 1] = 0x7F;
    }
  }
  Image record() {
    Image image(layout_.recordSize, 0);
    for (Part part : {kKey, kTree, kAttributes}) mutate(image, part);
    return image;
  }

  // The status, the whole image and the current record of a read.
  void expectRead(const char* what, int got, int want) {
    ASSERT_EQ(got, want) << trace_ << " " << what;
    ++counts_[got];
    ASSERT_EQ(buffer_, got == TBL_OK ? model_.records.at(model_.hit) : buffer_) << trace_ << " " << what;
    ASSERT_EQ(table_.currentRecordNumber(), int64_t(model_.current())) << trace_ << " " << what;
  }

  // addRecord of a new record; modifyRecord of the current one (its tree
  // part or its key changed now and then, its attributes always); deleteRecord.
  void write(bool add, bool remove) {
    auto it = model_.records.find(model_.current());
    Image image = add || it == model_.records.end() ? record() : it->second;
    for (Part part : {kTree, kKey, kAttributes})
      if (chance(part == kTree ? 40 : part == kKey ? 25 : 100)) mutate(image, part);
    const int want = model_.write(remove ? nullptr : &image, add);
    ASSERT_EQ(add ? table_.addRecord(image.data()) : remove ? table_.deleteRecord() : table_.modifyRecord(image.data()),
              want) << trace_ << (add ? " add" : remove ? " delete" : " modify");
    if (add) ++counts_[want == TBL_OK ? -1 : -want];
  }

  // A keyed read, a set read or a prefix run on a random index, from the key
  // of some record (or of a fresh one) as the engine builds it, which must be
  // the model's; now and then nudged between stored keys.
  void keyedRead() {
    const int index = int(below(layout_.indexes.size()));
    const auto& ix = layout_.indexes[index];
    const int lengths[] = {0, 1, ix.keyLength / 3, ix.keyLength / 2, ix.keyLength - 1, ix.keyLength,
                           layout_.segments[ix.firstSegment].size};
    const int prefix = lengths[below(7)];
    Image image = record();
    if (!model_.records.empty() && !chance(25)) {
      auto it = model_.records.lower_bound(1 + below(model_.records.rbegin()->first));
      image = it == model_.records.end() ? model_.records.begin()->second : it->second;
    }
    Image key = engineKey(table_, layout_, index, image.data());
    ASSERT_EQ(std::string(key.begin(), key.end()), model_.keyOf(image, index)) << trace_ << " key";
    size_t last = key.size();
    while (last > 0 && !key[last - 1]) --last;
    if (last && chance(20)) key[last - 1] = uint8_t(key[last - 1] + (chance(50) ? 1 : -1));
    const std::string k(key.begin(), key.end());

    static const decltype(&TCtreeTable::getRecord) kReads[] = {
        &TCtreeTable::getRecord, &TCtreeTable::getGTERecord, &TCtreeTable::getGTRecord, &TCtreeTable::getLTERecord,
        &TCtreeTable::getLTRecord};
    const uint64_t kind = below(10);
    if (kind < 5)
      return expectRead("keyed", (table_.*kReads[kind])(index, key.data(), buffer_.data()),
                        model_.keyed(index, k, TableModel::Keyed(kind)));
    if (kind < 8) {
      const int want = model_.setEdge(index, k.substr(0, size_t(prefix)), kind == 5);
      expectRead("set", kind == 5 ? table_.firstInSet(index, key.data(), buffer_.data(), prefix)
                                  : table_.lastInSet(index, key.data(), buffer_.data(), prefix), want);
      return steps(index, true, 4);
    }
    // readRun: every record whole and in order, no buffer asked for the one
    // that ends the run, the current record where a getGTERecord/nextRecord
    // walk would have left it (the steps that follow start from there).
    std::vector<uint64_t> taken;
    refuseAt_ = chance(30) ? 1 + below(4) : 0, run_.clear();
    const int want = model_.run(index, k, size_t(prefix), refuseAt_, &taken);
    ASSERT_EQ(table_.readRun(index, key.data(), prefix, *this), want) << trace_ << " readRun";
    ASSERT_EQ(run_.size(), taken.size()) << trace_ << " readRun";
    for (size_t i = 0; i < taken.size(); ++i)
      ASSERT_EQ(run_[i], model_.records.at(taken[i])) << trace_ << " readRun record " << i;
    ASSERT_EQ(table_.currentRecordNumber(), int64_t(model_.current())) << trace_ << " readRun";
    steps(index, false, 2);
  }

  // firstRecord, lastRecord or readByOffset, then steps, on any index or in
  // the physical order (index -1).
  void walk() {
    const int index = int(below(layout_.indexes.size() + 1)) - 1;
    const uint64_t kind = below(4), recno = 1 + below(model_.records.empty() ? 3 : model_.records.rbegin()->first + 2);
    if (kind < 2)
      expectRead("edge", kind ? table_.lastRecord(index, buffer_.data()) : table_.firstRecord(index, buffer_.data()),
                 model_.edge(index, kind == 0));
    if (kind == 2)
      expectRead("readByOffset", table_.readByOffset(buffer_.data(), int(recno), int(buffer_.size())),
                 model_.byNumber(recno));
    steps(index, false, int(below(6)));
  }

  // A few steps in one direction, as callers iterate.
  void steps(int index, bool inSet, int count) {
    const bool forward = chance(60);
    const auto step = inSet ? (forward ? &TCtreeTable::nextInSet : &TCtreeTable::previousInSet)
                            : (forward ? &TCtreeTable::nextRecord : &TCtreeTable::previousRecord);
    for (int s = 0, got = TBL_OK; s < count && got == TBL_OK && !::testing::Test::HasFailure(); ++s) {
      const int want = model_.step(index, forward, inSet);
      expectRead(forward ? "next" : "previous", got = (table_.*step)(index, buffer_.data()), want);
    }
  }

  // Indexing left suspended is rebuilt at open, which says so, and says too
  // when a duplicate keeps it suspended. Small sort memory now and then, so
  // that a rebuild spills runs.
  void reopen() {
    ASSERT_EQ(table_.close(), TBL_OK) << trace_;
    model_.closed();
    if (chance(50)) table_.setRebuildMemoryLimit(4096 + below(8192));
    capture_->Clear();
    ASSERT_EQ(table_.open(WZIndexing::kAccessReadWrite), TBL_OK) << trace_ << " reopen";
    const size_t rebuilt = model_.suspended ? (model_.rebuild(), 1) : 0;
    EXPECT_EQ(capture_->FindContaining("Rebuilding the indexes of table " + name_ +
                                       " during open: indexing was left suspended").size(), rebuilt);
    EXPECT_EQ(capture_->FindContaining("Table " + name_ + ": a unique index meets a duplicate key; indexing "
                                       "stays suspended and no record was lost").size(), size_t(model_.suspended));
    ASSERT_EQ(table_.numberOfRecords(), int64_t(model_.records.size())) << trace_;
  }

  void suspend() {
    ASSERT_NE(table_.suspendIndexing(), -1) << trace_;
    model_.suspended = true;
  }

  void resume() {
    ++counts_[-2];
    table_.setBypassMode(model_.bypass = false);
    const int got = table_.resumeIndexingAndRebuild();
    ASSERT_EQ(got, model_.rebuild()) << trace_ << " resume";
    if (got != TBL_DUPLICATE_KEY) return;
    // Nothing was lost: remove the clashing records through the physical
    // order, then the rebuild succeeds.
    for (uint64_t recno : model_.clashing()) {
      ASSERT_EQ(table_.readByOffset(buffer_.data(), int(recno), int(buffer_.size())), model_.byNumber(recno));
      ASSERT_EQ(table_.deleteRecord(), model_.write(nullptr));
    }
    ASSERT_EQ(table_.resumeIndexingAndRebuild(), model_.rebuild()) << trace_ << " resume again";
  }

  void checkAll() {
    table_.setBypassMode(model_.bypass = false);
    // No sort run or other file is left beside the table's own.
    for (const auto& entry : std::filesystem::directory_iterator(dir_.path()))
      ASSERT_TRUE(std::set<std::string>({"diff.dat", "diff.idx", "diff.log"}).count(entry.path().filename()))
          << entry.path();
    if (model_.suspended) return;
    std::string report;
    ASSERT_EQ(table_.checkConsistency(&report), TBL_OK) << trace_ << " " << report;
    ASSERT_EQ(table_.numberOfRecords(), int64_t(model_.records.size())) << trace_;
    // The physical walk returns every record, in record-number order.
    expectRead("first", table_.firstRecord(-1, buffer_.data()), model_.edge(-1, true));
    steps(-1, false, int(model_.records.size()));
  }

  TempDir dir_;
  const std::string name_ = dir_ / "diff";
  std::shared_ptr<CLogCapture> capture_ = CLogCapture::Install();
  SchemaLayout layout_;
  TableModel model_;
  std::mt19937_64 rng_;
  std::vector<std::vector<Image>> pools_;  // values of each integer or binary key field
  TCtreeTable table_;
  Image buffer_;
  std::string trace_;
  std::map<int, uint64_t> counts_;  // reads by status; adds by -status (-1: added); -2: rebuilds
  std::vector<Image> run_;
  size_t refuseAt_ = 0;
};

}  // namespace

TEST(TableDifferential, GenericRecordSchemaMatchesModel) {
  const uint64_t seed = envOr("WZ_TABLE_DIFF_SEED", 20261122);
  SCOPED_TRACE("seed " + std::to_string(seed));
  Differential(SchemaLayout::generic(), seed).run(envOr("WZ_TABLE_DIFF_OPS", 20000));
}

// Integer keys (big-endian), a case-insensitive name segment, a type-12
// integer index.
TEST(TableDifferential, IntegerAndCaseInsensitiveSchemaMatchesModel) {
  const uint64_t seed = envOr("WZ_TABLE_DIFF_SEED", 77) + 1;
  SCOPED_TRACE("seed " + std::to_string(seed));
  Differential(smallSchema(), seed).run(envOr("WZ_TABLE_DIFF_OPS", 20000));
}
