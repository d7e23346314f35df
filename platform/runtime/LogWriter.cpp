// CLogWriter and the process-wide g_ptrLogWriter.
#include "runtime/LogWriter.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "runtime/CTimeStamp.h"
#include "runtime/FXErrorUtil.h"
#include "runtime/FXString.h"
#include "runtime/WZPlatformInfo.h"

namespace {

// The kernel's id of the calling thread, cached per thread. A forked child
// is a new process whose one thread has a new id: the cache is cleared there.
thread_local unsigned long t_threadId = 0;

void ForgetThreadIdInChild() { t_threadId = 0; }

unsigned long CurrentThreadId() noexcept {
  static const bool registered = pthread_atfork(nullptr, nullptr, &ForgetThreadIdInChild) == 0;
  (void)registered;
  if (t_threadId == 0) t_threadId = static_cast<unsigned long>(syscall(SYS_gettid));
  return t_threadId;
}

// Writes all of `text` to `fd`; a failing destination loses the line.
void WriteAll(int fd, const char* text, size_t length) noexcept {
  while (length > 0) {
    ssize_t written = ::write(fd, text, length);
    if (written < 0) {
      if (errno == EINTR) continue;
      return;
    }
    text += written;
    length -= static_cast<size_t>(written);
  }
}

bool ParseLevel(const std::string& text, int* level) {
  if (text.empty()) return false;
  errno = 0;
  char* end = nullptr;
  long value = std::strtol(text.c_str(), &end, 10);
  while (end && (*end == ' ' || *end == '\t')) ++end;
  if (errno != 0 || end == text.c_str() || *end != '\0' || value < -1000 || value > 1000)
    return false;
  *level = static_cast<int>(value);
  return true;
}

}  // namespace

CLogSink::~CLogSink() = default;

struct CLogWriter::Impl {
  // Guards the destination and the sink list; one line is written under it,
  // so lines never interleave.
  std::mutex mutex;
  // -1: nowhere. The default: the process that loads the library routes it.
  int fd = -1;
  bool ownsFd = false;
  // Sinks are held weakly: a sink is removed when its owner lets it go.
  // Replaced (never changed in place) so a writer can walk its snapshot
  // without holding the lock.
  std::shared_ptr<const std::vector<std::weak_ptr<CLogSink>>> sinks;

  void CloseFd() {
    if (ownsFd && fd >= 0) ::close(fd);
    ownsFd = false;
  }
};

CLogWriter::CLogWriter() : impl_(new Impl) { Configure(); }

CLogWriter::~CLogWriter() {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  impl_->CloseFd();
}

void CLogWriter::Write(int level, const char* function, int line, const char* format, ...) {
  if (!IsEnabled(level)) return;
  va_list args;
  va_start(args, format);
  WriteV(level, function, line, format, args);
  va_end(args);
}

void CLogWriter::WriteV(int level, const char* function, int line, const char* format,
                        va_list args) {
  if (!IsEnabled(level)) return;
  // Callers often log a failure and then read errno; writing must not change it.
  const int savedErrno = errno;
  CLogEntry entry{level, function ? function : "", line, FXString::FormatV(format, args),
                  CurrentThreadId()};

  size_t messageLength = entry.message.size();
  if (messageLength > 0 && entry.message[messageLength - 1] == '\n') --messageLength;
  std::string text = CTimeStamp::Now().AsString();
  text += FXString::Format(" [tid %lu] L%d %s:%d ", entry.threadId, level,
                           entry.function.c_str(), line);
  text.append(entry.message, 0, messageLength);
  text += '\n';

  std::shared_ptr<const std::vector<std::weak_ptr<CLogSink>>> sinks;
  {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    if (impl_->fd >= 0) WriteAll(impl_->fd, text.data(), text.size());
    sinks = impl_->sinks;
  }
  if (sinks) {
    for (const auto& weak : *sinks) {
      if (auto sink = weak.lock()) sink->Write(entry);
    }
  }
  errno = savedErrno;
}

CKoError CLogWriter::SetFile(const std::string& path) {
  int fd = ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
  if (fd < 0) {
    int error = errno;
    return FXErrorUtil::ErrorErrNo(
        FXCodeLocation("runtime/LogWriter", "CKoError CLogWriter::SetFile(const std::string&)",
                       __LINE__),
        error, "Cannot open log file \"%s\": %s",
                                   path.c_str(), CKoError::CodeText(EKoErrorKind::kErrNo, error).c_str());
  }
  std::lock_guard<std::mutex> lock(impl_->mutex);
  impl_->CloseFd();
  impl_->fd = fd;
  impl_->ownsFd = true;
  return CKoError();
}

void CLogWriter::SetStderr() {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  impl_->CloseFd();
  impl_->fd = STDERR_FILENO;
}

void CLogWriter::SetNone() {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  impl_->CloseFd();
  impl_->fd = -1;
}

void CLogWriter::AddSink(const std::shared_ptr<CLogSink>& sink) {
  if (!sink) return;
  std::lock_guard<std::mutex> lock(impl_->mutex);
  auto next = std::make_shared<std::vector<std::weak_ptr<CLogSink>>>();
  if (impl_->sinks) {
    for (const auto& weak : *impl_->sinks)
      if (!weak.expired()) next->push_back(weak);
  }
  next->push_back(sink);
  impl_->sinks = std::move(next);
}

void CLogWriter::RemoveSink(const std::shared_ptr<CLogSink>& sink) {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  if (!impl_->sinks) return;
  auto next = std::make_shared<std::vector<std::weak_ptr<CLogSink>>>();
  for (const auto& weak : *impl_->sinks) {
    auto held = weak.lock();
    if (held && held != sink) next->push_back(weak);
  }
  impl_->sinks = std::move(next);
}

void CLogWriter::Configure() {
  // Reads the settings without WZPlatformInfo::getRegInt: that may log a
  // warning through g_ptrLogWriter, which does not exist yet while the first
  // writer is being made. Warnings here go to this writer directly.
  static const char* const kFunction = "void CLogWriter::Configure()";

  std::string levelText;
  if (const char* env = std::getenv("WZ_LOG_LEVEL")) {
    levelText = env;
  } else {
    WZPlatformInfo::getRegString("Log", "LogLevel", &levelText);
  }
  std::string fileText;
  bool haveFile = false;
  if (const char* env = std::getenv("WZ_LOG_FILE")) {
    fileText = env;
    haveFile = true;
  } else {
    haveFile = WZPlatformInfo::getRegString("Log", "LogFile", &fileText);
  }

  if (haveFile) {
    if (fileText == "-") {
      SetStderr();
    } else if (fileText == "off") {
      SetNone();
    } else if (!fileText.empty()) {
      CKoError error = SetFile(fileText);
      if (error.IsError())
        Write(-1, kFunction, __LINE__, "Log file not used: %s", error.GetTopMessage().c_str());
    }
  }
  if (!levelText.empty()) {
    int level = 0;
    if (ParseLevel(levelText, &level))
      SetLevel(level);
    else
      Write(-1, kFunction, __LINE__, "Ignoring malformed log level \"%s\"", levelText.c_str());
  }
}

// Made while this library is loaded, before any library linked against it
// runs its own static initialisers. Never deleted: lines may still be written
// while the process exits.
CLogWriter* g_ptrLogWriter = new CLogWriter();
