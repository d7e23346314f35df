// The writer side of the crash test: runs in a forked child, applies random
// writes to the table and reports each one over a pipe, a Begin message before
// the call and an Ack message once the call returned success. It never
// returns; the parent ends it with SIGKILL.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "CrashRecords.h"

namespace crashtest {

struct WriterModel {
  std::vector<int64_t> state;         // per key: kAbsent or the stored version
  std::vector<uint32_t> nextVersion;  // per key: the next unused version
};

// Opens the table `name`, then writes forever. `model` is the table's
// content when the writer starts. A step that does not behave as the model
// predicts is reported as a Failed message and ends the process with code 3.
[[noreturn]] void runWriter(const std::string& name, WriterModel model, uint64_t seed, int fd);

}  // namespace crashtest
