#include "OutputMode.h"

#include <memory>

#include <CLI/CLI.hpp>

void AddOutputOptions(CLI::App* command, OutputMode& mode) {
  auto null = command->add_flag_callback(
      "-0,--null", [&mode] { mode = OutputMode::kNull; },
      "End each record with a NUL byte instead of a newline (for xargs -0)");
  auto json = command->add_flag_callback("--json", [&mode] { mode = OutputMode::kJson; },
                                         "Write one JSON object per line");
  null->excludes(json);
}

void UseLargeOutputBuffer() {
  static char buffer[1 << 16];
  std::setvbuf(stdout, buffer, _IOFBF, sizeof(buffer));
}

void OutputLine(OutputMode mode, const std::string& text, FILE* out) {
  std::fwrite(text.data(), 1, text.size(), out);
  std::fputc(mode == OutputMode::kNull ? '\0' : '\n', out);
}
