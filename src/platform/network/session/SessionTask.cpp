#include "platform/network/session/SessionTask.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

#include "platform/network/message/TemporaryFile.h"

namespace platform {

URLSessionTask::~URLSessionTask() = default;

namespace network {

namespace {

/// What may wait for a slow delegate before the transfer halts.
constexpr std::size_t kWaitingAtMost = 1U << 20U;

struct FileErrorRow {
  int systemError;
  std::int64_t code;
};
constexpr std::array kFileErrors = {
    FileErrorRow{ENOENT, NSURLErrorFileDoesNotExist},       FileErrorRow{ENOTDIR, NSURLErrorFileDoesNotExist},
    FileErrorRow{EISDIR, NSURLErrorFileIsDirectory},        FileErrorRow{EACCES, NSURLErrorNoPermissionsToReadFile},
    FileErrorRow{EPERM, NSURLErrorNoPermissionsToReadFile},
};

std::int64_t codeOfFileError(std::int64_t systemError) {
  const auto* const row =
      std::find_if(kFileErrors.begin(), kFileErrors.end(), [systemError](const FileErrorRow& r) { return r.systemError == systemError; });
  return row == kFileErrors.end() ? NSURLErrorCannotOpenFile : row->code;
}

Result<Bytes, Error> openBody(const URL& file) {
  auto body = Bytes::dataWithContentsOfFile(file.path());
  if (body) return body;
  return URLError(codeOfFileError(body.error().code), file.absoluteString(), body.error().localizedDescription);
}

/// A downloaded file for as long as its handler looks at it.
class NamedDownload {
 public:
  explicit NamedDownload(const std::shared_ptr<const FileHandle>& file) : path_(file ? pathGivenTo(*file) : std::string()) {}
  ~NamedDownload() {
    if (!path_.empty()) unlink(path_.c_str());
  }
  NamedDownload(const NamedDownload&) = delete;
  NamedDownload& operator=(const NamedDownload&) = delete;
  /// Empty when there is none to be had.
  [[nodiscard]] const std::string& path() const { return path_; }

 private:
  static std::string pathGivenTo(const FileHandle& file) {
    auto path = nameFile(file);
    return path ? *std::move(path) : std::string();
  }
  const std::string path_;
};

}  // namespace

SessionTask::SessionTask(Plan plan, Place place)
    : plan_(std::move(plan)),
      place_(std::move(place)),
      delivery_(std::make_shared<Delivery>(place_.executor)),
      collector_(plan_.kind == Kind::Download ? BodyCollector::Place::File : BodyCollector::Place::MemoryFirst) {}

SessionTask::~SessionTask() { place_.tasks.forget(place_.identifier); }

void SessionTask::resume() {
  Result<std::shared_ptr<Load>, Error> load(nullptr);
  {
    MutexLock lock(mutex_);
    if (state_ != State::Suspended) return;
    state_ = State::Running;
    delegate_ = place_.session->delegate();
    place_.tasks.began();
    try {
      load = makeLoad();
      if (load) {
        load_ = *load;
        // Under the lock, so that a cancellation on another thread is behind it.
        (*load)->start();
      }
    } catch (...) {
      lock.unlock();
      abandon();
      throw;
    }
  }
  if (!load) complete(std::move(load).error());
}

void SessionTask::abandon() {
  // They may hold who holds this.
  const auto dataHandler = std::exchange(plan_.dataHandler, nullptr);
  const auto downloadHandler = std::exchange(plan_.downloadHandler, nullptr);
  const auto delegate = std::exchange(delegate_, nullptr);
  {
    const MutexLock lock(mutex_);
    state_ = State::Completed;
    load_.reset();
  }
  place_.tasks.done();
}

Result<std::shared_ptr<Load>, Error> SessionTask::makeLoad() {
  auto body = plan_.body ? plan_.body : plan_.request.HTTPBody();
  if (plan_.bodyFile) {
    auto opened = openBody(*plan_.bodyFile);
    if (!opened) return std::move(opened).error();
    body = *std::move(opened);
  }
  return std::make_shared<Load>(place_.core, plan_.request, std::move(body), self());
}

void SessionTask::cancel() {
  std::shared_ptr<Load> load;
  {
    const MutexLock lock(mutex_);
    if (state_ != State::Running && state_ != State::Suspended) return;
    if (std::exchange(state_, State::Canceling) == State::Running) {
      load = load_.lock();
      // It has ended already, and what comes of that comes.
      if (!load) return;
    } else {
      delegate_ = place_.session->delegate();
    }
  }
  if (load) return load->cancel();
  place_.tasks.began();
  complete(std::nullopt);
}

URLSessionTask::State SessionTask::state() const {
  const MutexLock lock(mutex_);
  return state_;
}

std::string SessionTask::taskDescription() const {
  const MutexLock lock(mutex_);
  return description_;
}

void SessionTask::setTaskDescription(std::string text) {
  const MutexLock lock(mutex_);
  description_ = std::move(text);
}

std::shared_ptr<const URLResponse> SessionTask::response() const {
  const MutexLock lock(mutex_);
  return response_;
}

std::optional<Error> SessionTask::error() const {
  const MutexLock lock(mutex_);
  return error_;
}

void SessionTask::challenged(const URLAuthenticationChallenge& challenge, URLChallengeHandler answer) {
  delivery_->post([self = self(), delegate = delegate_, challenge, answer = std::move(answer)] {
    if (challenge.protectionSpace.authenticationMethod == NSURLAuthenticationMethodServerTrust) {
      delegate->URLSession_didReceiveChallenge_completionHandler(self->place_.session, challenge, answer);
    } else {
      delegate->URLSession_task_didReceiveChallenge_completionHandler(self->place_.session, self, challenge, answer);
    }
  });
}

void SessionTask::responseArrived(const std::shared_ptr<const URLResponse>& response) {
  {
    const MutexLock lock(mutex_);
    response_ = response;
  }
  if (hasHandler() || !delegate_ || plan_.kind != Kind::Data) return;
  delivery_->post([self = self(), delegate = delegate_, response] {
    delegate->URLSession_dataTask_didReceiveResponse(self->place_.session, self, response);
  });
}

Result<Exchange::Appetite, Error> SessionTask::dataArrived(std::span<const char> piece) {
  if (!hasHandler() && plan_.kind == Kind::Data) return delegate_ ? passOn(piece) : Exchange::Appetite::Take;
  if (auto failure = collector_.append(piece)) return *std::move(failure);
  if (!hasHandler() && delegate_) tellWritten(piece.size());
  return Exchange::Appetite::Take;
}

Exchange::Appetite SessionTask::passOn(std::span<const char> piece) {
  if (waiting_ > kWaitingAtMost) return Exchange::Appetite::Pause;
  waiting_ += piece.size();
  // Counted as taken when the block is gone, also one that the queue cancelled.
  struct Taken {
    const std::shared_ptr<SessionTask> task;
    const std::size_t size;
    ~Taken() { task->taken(size); }
  };
  // NOLINTNEXTLINE(modernize-make-shared): which cannot make aggregates
  delivery_->post([taken = std::shared_ptr<Taken>(new Taken{self(), piece.size()}), delegate = delegate_,
                   data = Bytes(std::string(piece.data(), piece.size()))] {
    delegate->URLSession_dataTask_didReceiveData(taken->task->place_.session, taken->task, data);
  });
  return Exchange::Appetite::Take;
}

void SessionTask::taken(std::size_t size) {
  const auto before = waiting_.fetch_sub(size);
  if (before <= kWaitingAtMost || before - size > kWaitingAtMost) return;
  std::shared_ptr<Load> load;
  {
    const MutexLock lock(mutex_);
    load = load_.lock();
  }
  if (load) load->goOn();
}

void SessionTask::tellWritten(std::size_t size) {
  written_ += static_cast<std::int64_t>(size);
  if (untold_.fetch_add(static_cast<std::int64_t>(size)) > 0) return;
  delivery_->post([self = self(), delegate = delegate_] {
    const auto response = self->response();
    delegate->URLSession_downloadTask_didWriteData_totalBytesWritten_totalBytesExpectedToWrite(
        self->place_.session, self, self->untold_.exchange(0), self->written_, response->expectedContentLength());
  });
}

void SessionTask::loadEnded(std::optional<Error> error) { complete(std::move(error)); }

void SessionTask::complete(std::optional<Error> error) {
  {
    const MutexLock lock(mutex_);
    // A cancellation that was taken holds, even when the load was faster.
    if (std::exchange(state_, State::Completed) == State::Canceling) {
      error = URLError(NSURLErrorCancelled, plan_.request.URL() ? plan_.request.URL()->absoluteString() : std::string());
    }
    error_ = error;
    load_.reset();
  }
  // Whatever happens in the caller's code, and when the queue cancels the block, the session hears that the task is done.
  struct Tally {
    const std::shared_ptr<SessionTask> task;
    ~Tally() { task->place_.tasks.done(); }
  };
  // NOLINTNEXTLINE(modernize-make-shared): which cannot make aggregates
  delivery_->post([tally = std::shared_ptr<Tally>(new Tally{self()}), error = std::move(error)] {
    SessionTask& task = *tally->task;
    task.tellEnd(error, std::exchange(task.delegate_, nullptr));
  });
}

void SessionTask::tellEnd(const std::optional<Error>& error, const Delegate& delegate) {
  if (plan_.kind == Kind::Download) return tellDownload(error, delegate);
  if (const auto handler = std::exchange(plan_.dataHandler, nullptr)) {
    return handler(error ? std::nullopt : std::optional(collector_.takeBytes()), response(), error);
  }
  if (delegate) delegate->URLSession_task_didCompleteWithError(place_.session, self(), error);
}

void SessionTask::tellDownload(const std::optional<Error>& error, const Delegate& delegate) {
  const auto handler = std::exchange(plan_.downloadHandler, nullptr);
  auto failure = error;
  const NamedDownload named(failure ? nullptr : collector_.takeFile());
  std::optional<URL> location;
  if (!failure && named.path().empty()) {
    failure = URLError(NSURLErrorCannotCreateFile, plan_.request.URL()->absoluteString());
    const MutexLock lock(mutex_);
    error_ = failure;
  } else if (!failure) {
    location = URL::fileURLWithPath(named.path());
  }
  if (handler) return handler(location, response(), failure);
  if (!delegate) return;
  if (location) delegate->URLSession_downloadTask_didFinishDownloadingToURL(place_.session, self(), *location);
  delegate->URLSession_task_didCompleteWithError(place_.session, self(), failure);
}

}  // namespace network
}  // namespace platform
