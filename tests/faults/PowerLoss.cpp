#include "faults/PowerLoss.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <sstream>
#include <vector>

namespace faults {
namespace fs = std::filesystem;

namespace {

std::map<std::string, unsigned long long> readNames(const std::string& path) {
  std::map<std::string, unsigned long long> names;
  std::ifstream in(path);
  std::string name;
  unsigned long long ino;
  while (in >> name >> ino) names[name] = ino;
  return names;
}

bool readFile(const std::string& path, std::string* out) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return false;
  out->assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  return true;
}

struct Pending {
  std::string name;
  std::string base, current;  // padded to the same length
  size_t baseSize = 0, currentSize = 0;
  size_t unit = 4096;
  std::vector<size_t> units;   // units whose bytes differ
  std::vector<bool> take;      // per entry of `units`
  size_t tornUnit = SIZE_MAX;  // a unit of which only a prefix is taken
  size_t tornBytes = 0;
  bool currentSizeChosen = false;
  bool isLog() const { return unit == 512; }
};

}  // namespace

const char* lossName(Loss loss) {
  static const char* const names[] = {"durable only",  "everything", "meta pages only",
                                      "all but meta",  "random",     "ascending cut",
                                      "torn log",      "log behind"};
  return names[int(loss)];
}

void buildLossImage(const std::string& snapDir, Loss loss, std::mt19937_64& rng,
                    const std::string& dir) {
  const auto durableNames = readNames(snapDir + "/names.durable");
  const auto currentNames = readNames(snapDir + "/names.current");
  bool useDurableNames = rng() % 2 == 0;
  if (loss == Loss::kDurable) useDurableNames = true;
  if (loss == Loss::kEverything) useDurableNames = false;
  const auto& names = useDurableNames ? durableNames : currentNames;

  std::vector<Pending> files;
  for (const auto& [name, ino] : names) {
    Pending f;
    f.name = name;
    const std::string id = std::to_string(ino);
    readFile(snapDir + "/d-" + id, &f.base);
    if (!readFile(snapDir + "/c-" + id, &f.current)) f.current = f.base;
    f.baseSize = f.base.size();
    f.currentSize = f.current.size();
    const size_t len = std::max(f.baseSize, f.currentSize);
    f.base.resize(len, '\0');
    f.current.resize(len, '\0');
    f.unit = name.size() > 4 && name.compare(name.size() - 4, 4, ".log") == 0 ? 512 : 4096;
    for (size_t u = 0; u * f.unit < len; ++u)
      if (f.base.compare(u * f.unit, f.unit, f.current, u * f.unit, f.unit) != 0) f.units.push_back(u);
    f.take.assign(f.units.size(), false);
    f.currentSizeChosen = rng() % 2 == 0;
    files.push_back(std::move(f));
  }

  auto takeAll = [](Pending& f, bool value) { std::fill(f.take.begin(), f.take.end(), value); };
  switch (loss) {
    case Loss::kDurable:
      for (auto& f : files) f.currentSizeChosen = false;
      break;
    case Loss::kEverything:
      for (auto& f : files) takeAll(f, true), f.currentSizeChosen = true;
      break;
    case Loss::kMetaOnly:
      for (auto& f : files) {
        f.currentSizeChosen = false;
        for (size_t i = 0; i < f.units.size(); ++i) f.take[i] = !f.isLog() && f.units[i] < 2;
      }
      break;
    case Loss::kAllButMeta:
      for (auto& f : files) {
        f.currentSizeChosen = true;
        for (size_t i = 0; i < f.units.size(); ++i) f.take[i] = f.isLog() || f.units[i] >= 2;
      }
      break;
    case Loss::kRandom:
      for (auto& f : files)
        for (size_t i = 0; i < f.units.size(); ++i) f.take[i] = rng() % 2 == 0;
      break;
    case Loss::kAscendingCut: {
      std::shuffle(files.begin(), files.end(), rng);
      size_t total = 0;
      for (auto& f : files) total += f.units.size();
      size_t left = total ? size_t(rng() % (total + 1)) : 0;
      for (auto& f : files) {
        for (size_t i = 0; i < f.units.size() && left > 0; ++i, --left) f.take[i] = true;
        if (!f.units.empty() && f.take.back()) f.currentSizeChosen = true;
      }
      break;
    }
    case Loss::kTornLog:
      for (auto& f : files) {
        takeAll(f, true);
        f.currentSizeChosen = true;
        if (f.isLog() && !f.units.empty()) {
          f.take.back() = false;
          f.tornUnit = f.units.back();
          f.tornBytes = size_t(rng() % f.unit);
        }
      }
      break;
    case Loss::kLogBehind:
      for (auto& f : files) {
        takeAll(f, !f.isLog());
        f.currentSizeChosen = !f.isLog();
      }
      break;
    case Loss::kCount:
      break;
  }

  fs::create_directories(dir);
  for (auto& f : files) {
    std::string image = f.base;
    for (size_t i = 0; i < f.units.size(); ++i)
      if (f.take[i]) image.replace(f.units[i] * f.unit, f.unit, f.current, f.units[i] * f.unit, f.unit);
    if (f.tornUnit != SIZE_MAX)
      image.replace(f.tornUnit * f.unit, f.tornBytes, f.current, f.tornUnit * f.unit, f.tornBytes);
    image.resize(f.currentSizeChosen ? f.currentSize : f.baseSize);
    std::ofstream out(dir + "/" + f.name, std::ios::binary | std::ios::trunc);
    out.write(image.data(), std::streamsize(image.size()));
  }
}

void runPowerLossRound(const std::string& workDir, const std::string& scratch,
                       const PowerLossRound& round, std::mt19937_64& rng, State& base,
                       LossTally& tally) {
  const std::string snaps = scratch + "/snaps", durable = scratch + "/durable";
  fs::remove_all(snaps);
  fs::remove_all(durable);
  fs::create_directories(snaps);
  const std::string seed = std::to_string(rng() % 1000000000);
  if (fs::is_empty(workDir)) {
    // The losses cut into writes to an existing table (create has its own
    // kill points): made and closed by a writer without the shim.
    RunOptions make;
    make.shim = false;
    make.args = round.database ? std::vector<std::string>{"db", workDir, seed, "0"}
                               : std::vector<std::string>{"table", workDir, seed, "0", "1"};
    runWriter(make);
    base = round.database ? State{{"/", 1}, {"/w", 1}} : State{};
  }
  RunOptions options;
  options.syncIntervalMs = round.syncIntervalMs;
  options.logLimitMiB = 1;
  long every = round.snapEvery;
  if (every <= 0) {
    // Count the calls of the same run on a copy, to spread the snapshots.
    const std::string copy = scratch + "/count";
    fs::remove_all(copy);
    copyDir(workDir, copy);
    RunOptions count = options;
    count.args = round.database ? std::vector<std::string>{"db", copy, seed, std::to_string(round.ops)}
                                : std::vector<std::string>{"table", copy, seed, std::to_string(round.ops),
                                                           std::to_string(round.keys)};
    count.env = {{"WZF_DIR", copy}, {"WZF_TRACE", scratch + "/count.trace"}, {"WZF_NOSYNC", "1"}};
    if (!round.calls.empty()) count.env["WZF_CALLS"] = round.calls;
    runWriter(count);
    every = long(readTrace(scratch + "/count.trace").size()) / round.snapMax + 1;
    fs::remove_all(copy);
    fs::remove(scratch + "/count.trace");
  }
  options.args = round.database
                     ? std::vector<std::string>{"db", workDir, seed, std::to_string(round.ops)}
                     : std::vector<std::string>{"table", workDir, seed, std::to_string(round.ops),
                                                std::to_string(round.keys)};
  options.env = {{"WZF_DIR", workDir},
                 {"WZF_DURABLE", durable},
                 {"WZF_SNAP_DIR", snaps},
                 {"WZF_SNAP_EVERY", std::to_string(every)},
                 {"WZF_SNAP_MAX", std::to_string(round.snapMax)},
                 {"WZF_SEED", seed},
                 {"WZF_NOSYNC", "1"}};
  if (!round.calls.empty()) options.env["WZF_CALLS"] = round.calls;
  const WriterRun run = runWriter(options);
  ++tally.rounds;
  auto problem = [&](const std::string& what) {
    if (!tally.firstProblem.empty()) return;
    tally.firstProblem = what;
    // WZ_POWERLOSS_KEEP=dir keeps the first bad image and its snapshot.
    if (const char* keep = std::getenv("WZ_POWERLOSS_KEEP")) {
      fs::remove_all(keep);
      fs::create_directories(keep);
      copyDir(scratch + "/image", std::string(keep) + "/image");
      std::ofstream(std::string(keep) + "/problem.txt") << what << "\n" << run.output;
    }
  };
  if (run.exitCode != 0 || !run.errors.empty() || !run.logged.empty()) {
    problem("writer: exit " + std::to_string(run.exitCode) + " signal " + std::to_string(run.signal) +
            (run.errors.empty() ? "" : " error " + run.errors[0]) +
            (run.logged.empty() ? "" : " logged " + run.logged[0]));
    ++tally.damaged;
    return;
  }
  const std::vector<Operation> live = notFailed(run.ops);
  std::vector<std::string> keys;
  for (const auto& [k, v] : base) keys.push_back(k);
  for (const Operation& op : run.ops) keys.push_back(op.key);

  for (const Snapshot& snap : run.snapshots) {
    for (int kind = 0; kind < int(Loss::kCount); ++kind) {
      const Loss loss = Loss(kind);
      const std::string image = scratch + "/image";
      fs::remove_all(image);
      buildLossImage(snaps + "/" + std::to_string(snap.id), loss, rng, image);
      const Content content = round.database ? readDatabase(image, keys) : readTable(image, round.keys);
      ++tally.images;
      const std::string where = std::string("snapshot ") + std::to_string(snap.id) + " (" +
                                lossName(loss) + ", seed " + seed + "): ";
      if (content.status != 0) {
        ++tally.refused;
        problem(where + "refused with " + std::to_string(content.status) + " " + content.problem);
        continue;
      }
      if (!content.problem.empty()) {
        ++tally.damaged;
        problem(where + content.problem);
        continue;
      }
      const auto at = matchPrefix(base, run.ops, content.state, 0, snap.begun);
      if (!at) {
        ++tally.damaged;
        problem(where + "a state that never existed: " + describe(content.state));
        continue;
      }
      if (*at < snap.durable) {
        ++tally.damaged;
        problem(where + "lost acknowledged writes: holds " + std::to_string(*at) + " of " +
                std::to_string(snap.durable) + " durable operations");
        continue;
      }
      if (std::getenv("WZ_POWERLOSS_VERBOSE"))
        std::printf("%s%zu of %zu acknowledged (%zu durable, %zu begun)\n", where.c_str(), *at,
                    snap.acked, snap.durable, snap.begun);
      if (*at < snap.acked) {
        tally.maxLostOps = std::max(tally.maxLostOps, snap.acked - *at);
        tally.maxLostUs = std::max(tally.maxLostUs, snap.us - live[*at].ackUs);
      }
    }
  }
  tally.acknowledged += size_t(std::count_if(run.ops.begin(), run.ops.end(),
                                             [](const Operation& op) { return op.acked; }));
  base = applyAcked(base, run.ops);
  fs::remove_all(snaps);
  fs::remove_all(durable);
  fs::remove_all(scratch + "/image");
}

}  // namespace faults
