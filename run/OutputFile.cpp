#include "run/OutputFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>

#include "run/Initial.h"
#include "tracking/MethodMP.h"

namespace {

[[noreturn]] void Fail(WriteStage stage, const std::string& message) {
  if (stage == WriteStage::kSetUp) Initial::errorOut(message);
  MethodMP::errorOut(message);
}

// Writes all of `data` to `fd`; false with errno set, or with errno 0 when
// the system took no more bytes without saying why.
bool WriteAll(int fd, const std::string& data, std::size_t& written) {
  written = 0;
  while (written < data.size()) {
    const ssize_t n = ::write(fd, data.data() + written, data.size() - written);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      if (n == 0) errno = 0;
      return false;
    }
    written += static_cast<std::size_t>(n);
  }
  return true;
}

std::string Reason(int error, std::size_t written, std::size_t size) {
  std::string reason = error != 0 ? std::strerror(error) : "the system took no more bytes";
  if (error == EFBIG) reason += " (the file-size limit of the process, see ulimit -f)";
  if (size > 0) reason += "; " + std::to_string(written) + " of " + std::to_string(size) + " bytes were written";
  return reason;
}

void Write(const std::string& path, const std::string& data, bool append, WriteStage stage,
           const std::string& openFailure) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | (append ? O_APPEND : O_TRUNC), 0666);
  if (fd < 0 && !openFailure.empty()) Fail(stage, openFailure);
  if (fd < 0) Fail(stage, "The output file " + path + " cannot be opened for writing: " + std::strerror(errno));
  struct stat before;
  const off_t oldSize = append && ::fstat(fd, &before) == 0 ? before.st_size : 0;
  std::size_t written = 0;
  bool ok = WriteAll(fd, data, written);
  int error = errno;
  if (::close(fd) != 0 && ok) {
    ok = false;
    error = errno;
  }
  if (ok) return;
  // Nothing half-written: an appended file goes back to its last whole
  // block, a new one goes.
  std::string kept;
  if (append) {
    kept = ::truncate(path.c_str(), oldSize) == 0 ? "; it keeps what it held before" : "";
  } else {
    kept = ::unlink(path.c_str()) == 0 ? "; the cut file was removed" : "";
  }
  Fail(stage, "The output file " + path + " could not be written: " + Reason(error, written, data.size()) + kept);
}

}  // namespace

void AppendOutput(const std::string& path, const std::string& data, WriteStage stage,
                  const std::string& openFailure) {
  Write(path, data, true, stage, openFailure);
}

void WriteOutput(const std::string& path, const std::string& data, WriteStage stage,
                 const std::string& openFailure) {
  Write(path, data, false, stage, openFailure);
}

OutputText::LineBuffer::LineBuffer(const std::string& path, WriteStage stage)
    : std::stringbuf(std::ios::out | std::ios::ate), path_(path), stage_(stage) {}

void OutputText::LineBuffer::Pass(bool all) {
  const std::string pending = str();
  const std::size_t end = all ? pending.size() : pending.rfind('\n') + 1;
  if (end == 0 || (all && pending.empty())) return;
  AppendOutput(path_, pending.substr(0, end), stage_);
  str(pending.substr(end));
}

int OutputText::LineBuffer::sync() {
  Pass(false);
  return 0;
}

// The buffer is a member, made after the stream base that is handed its
// address; the base only keeps the pointer until the body runs.
OutputText::OutputText(const std::string& path, WriteStage stage) : std::ostream(&buffer_), buffer_(path, stage) {
  WriteOutput(path, "", stage);
  setf(std::ios::unitbuf);
}

OutputText::~OutputText() { close(); }

void OutputText::close() { buffer_.Pass(true); }

void ReportFileSizeLimitAsFailedWrite() { std::signal(SIGXFSZ, SIG_IGN); }
