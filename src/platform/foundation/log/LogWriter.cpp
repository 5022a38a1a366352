#include "platform/foundation/log/LogWriter.h"

#include <fmt/format.h>
#include <pthread.h>
#include <sys/syslog.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <system_error>
#include <thread>
#include <utility>

#include "platform/foundation/base/AllSignalsBlocked.h"
#include "platform/foundation/base/ApplicationIdentifier.h"

namespace platform {

namespace {

/// How long the process's end waits for lines that cannot be written.
constexpr int kPatienceAtExitInSeconds = 3;

/// True in a process that was forked from one with a writer: it has the queue but not the thread, and its locks may be held by nobody.
std::atomic<bool> isForkedChild = false;

std::string formatLine(const LogLine& line) {
  std::tm parts{};
  localtime_r(&line.time.tv_sec, &parts);
  return fmt::format("{:04}-{:02}-{:02} {:02}:{:02}:{:02}.{:03} {}[{}:{}] {}\n", parts.tm_year + 1900L, parts.tm_mon + 1, parts.tm_mday,
                     parts.tm_hour, parts.tm_min, parts.tm_sec, line.time.tv_nsec / 1'000'000, applicationIdentifier(), getpid(),
                     line.thread, line.text);
}

LogLine lineOfNow(std::string_view text) {
  LogLine line;
  clock_gettime(CLOCK_REALTIME, &line.time);
  line.thread = gettid();
  line.text = text;
  return line;
}

/// On a thread that is not ours: a standard error that is closed must not send it a signal.
void writeDirectly(const std::string& line) {
  const AllSignalsBlocked blocked;
  if (::write(STDERR_FILENO, line.data(), line.size()) >= 0 || errno != EPIPE) return;
  sigset_t broken;
  sigemptyset(&broken);
  sigaddset(&broken, SIGPIPE);
  const timespec now{};
  sigtimedwait(&broken, nullptr, &now);
}

}  // namespace

LogWriter& LogWriter::shared() {
  static LogWriter& writer = *new LogWriter();
  return writer;
}

void LogWriter::prepareOnce() {
  std::call_once(prepared_, [] {
    tzset();  // here, so that the writer never reads the environment, which others may be changing
    pthread_atfork(nullptr, nullptr, [] { isForkedChild = true; });
    std::atexit([] { shared().flush(kPatienceAtExitInSeconds); });
  });
}

bool LogWriter::isServed() {
  if (isServed_) return true;
  prepareOnce();
  const MutexLock lock(starting_);
  if (isServed_) return true;
  try {
    // Among them SIGPIPE: a closed standard error gives the writer an error.
    const AllSignalsBlocked blocked;
    std::thread([this] { run(); }).detach();
    isServed_ = true;
  } catch (const std::system_error&) {
    // Who logs can do nothing about it, and says more with the line itself.
  }
  return isServed_;
}

void LogWriter::log(std::string_view text) {
  if (isForkedChild) return writeDirectly(fmt::format("{}[{}:{}] {}\n", program_invocation_short_name, getpid(), gettid(), text));
  LogLine line = lineOfNow(text);
  if (!isServed()) return writeDirectly(formatLine(line));
  queue_.push(std::move(line));
}

void LogWriter::setDestination(const LogDestination& destination) {
  if (isForkedChild) return;
  isServed();
  queue_.setDestination(destination);
}

void LogWriter::flush(std::optional<int> limit) {
  if (isServed_ && !isForkedChild) queue_.waitUntilWritten(limit);
}

void LogWriter::run() {
  pthread_setname_np(pthread_self(), "log");
  beWritingThread();
  for (;;) {
    write(queue_.take());
    queue_.done();
  }
}

void LogWriter::write(const LogQueue::Batch& batch) {
  // Lines of the same batch may be older than the new destination; better there than lost.
  if (batch.destination) {
    syslog_ = batch.destination->syslog;
    file_ = FileSink(batch.destination->file, batch.destination->fileLimit);
    fileName_ = batch.destination->file;
    fileError_.clear();
  }
  for (const LogLine& line : batch.lines) writeLine(line);
  if (batch.dropped > 0) writeLine(lineOfNow(fmt::format("dropped {} log lines", batch.dropped)));
}

void LogWriter::writeLine(const LogLine& line) {
  const std::string text = formatLine(line);
  writeStandardError(text);
  if (syslog_) syslog(LOG_USER | LOG_NOTICE, "%s[%d:%d] %s", applicationIdentifier().c_str(), getpid(), line.thread, line.text.c_str());
  reportFileError(file_.write(text));
}

void LogWriter::writeStandardError(std::string_view text) {
  // A loss is said as soon as something goes through again.
  if (lostOnStandardError_ > 0 && standardError_.write(formatLine(lineOfNow(fmt::format("dropped {} log lines", lostOnStandardError_))))) {
    lostOnStandardError_ = 0;
  }
  if (!standardError_.write(text)) ++lostOnStandardError_;
}

void LogWriter::reportFileError(std::string reason) {
  const bool isNew = !reason.empty() && reason != fileError_;
  fileError_ = std::move(reason);
  if (isNew) writeStandardError(formatLine(lineOfNow(fmt::format("the log file {} cannot be written: {}", fileName_, fileError_))));
}

}  // namespace platform
