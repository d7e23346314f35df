// LogOptions: where the library's log goes while the tool runs.
//
// The library writes life-cycle and trace lines through g_ptrLogWriter; in
// the tool they would bury the tool's own output, so by default they are
// dropped. --log-file PATH appends them to a file (level 0 unless
// --log-level says otherwise); --log-level N alone sends them to standard
// error. When neither option is given but WZ_LOG_FILE or WZ_LOG_LEVEL is set
// in the environment, the writer is left as the environment configured it.
#pragma once

#include <string>

namespace CLI {
class App;
}

class LogOptions {
 public:
  // Adds --log-level and --log-file to `app`.
  void AddTo(CLI::App& app);
  // Configures g_ptrLogWriter; throws ToolError when the file cannot be opened.
  void Apply() const;

 private:
  int level_ = 0;
  bool levelGiven_ = false;
  std::string file_;
};
