#include "KeptReport.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>

#include "ChangeFormat.h"
#include "EntryJson.h"
#include "ToolError.h"
#include "runtime/FXFile.h"

std::string KeptReportPath(const std::string& directory) { return directory + "/WzScanDB.changes"; }

KeptReportWriter::KeptReportWriter(const std::string& directory, const nlohmann::json& scan)
    : path_(KeptReportPath(directory)), temporary_(path_ + ".tmp") {
  // The last report describes the database no more once this scan writes:
  // should it fail, `changed` finds no report rather than a stale one.
  ::unlink(path_.c_str());
  int fd = ::open(temporary_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW,
                  FXFile::CreatedFileMode());
  if (fd >= 0) file_ = ::fdopen(fd, "w");
  if (!file_) {
    std::string reason = std::strerror(errno);
    if (fd >= 0) ::close(fd);
    throw ToolError(kExitFailed, "cannot write " + temporary_ + ": " + reason);
  }
  std::fprintf(file_, "%s\n", JsonLine({{"scan", scan}}).c_str());
}

KeptReportWriter::~KeptReportWriter() {
  if (!file_) return;
  std::fclose(file_);
  ::unlink(temporary_.c_str());
}

void KeptReportWriter::Add(const Change& change) {
  std::string line = JsonLine(ChangeJson(change));
  line += '\n';
  std::fwrite(line.data(), 1, line.size(), file_);
}

void KeptReportWriter::Finish(const nlohmann::json& summary) {
  std::fprintf(file_, "%s\n", JsonLine({{"summary", summary}}).c_str());
  bool written = std::fflush(file_) == 0 && ::fsync(::fileno(file_)) == 0;
  written = std::fclose(file_) == 0 && written;
  file_ = nullptr;
  if (!written || ::rename(temporary_.c_str(), path_.c_str()) != 0) {
    std::string reason = std::strerror(errno);
    ::unlink(temporary_.c_str());
    throw ToolError(kExitFailed, "cannot keep the change report in " + path_ + ": " + reason);
  }
}

void ReadKeptReport(const std::string& directory, nlohmann::json& header,
                    const std::function<void(const Change&)>& visit, nlohmann::json& summary) {
  const std::string path = KeptReportPath(directory);
  std::ifstream in(path, std::ios::binary);
  if (!in)
    throw ToolError(kExitNotFound, "no change report in " + directory +
                                       " (no scan has finished there, or only dry runs)");
  std::string line;
  size_t number = 0;
  while (std::getline(in, line)) {
    ++number;
    nlohmann::json object = nlohmann::json::parse(line, nullptr, false);
    Change change;
    if (object.is_object() && object.contains("scan")) {
      header = object["scan"];
    } else if (object.is_object() && object.contains("summary")) {
      summary = object["summary"];
    } else if (ChangeFromJson(object, change)) {
      visit(change);
    } else {
      throw ToolError(kExitFailed, path + " is damaged at line " + std::to_string(number));
    }
  }
}
