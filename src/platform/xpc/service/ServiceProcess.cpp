#include "platform/xpc/service/ServiceProcess.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sysexits.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <optional>
#include <utility>

#include "platform/concurrency/RunLoop.h"
#include "platform/foundation/base/ApplicationIdentifier.h"
#include "platform/foundation/base/Exception.h"
#include "platform/foundation/files/Paths.h"
#include "platform/foundation/log/Log.h"
#include "platform/foundation/process/StatusRegistry.h"
#include "platform/xpc/channel/IOThread.h"
#include "platform/xpc/launch/LaunchRecord.h"
#include "platform/xpc/launch/ServiceFolder.h"
#include "platform/xpc/launch/Spawn.h"

namespace platform::xpc {

namespace {

using namespace std::chrono_literals;

/// How long the former process of this service may take to be gone.
constexpr auto kFormerProcessLimit = 10s;
/// How long handlers may take over the news that the process is about to end.
constexpr double kTerminationSeconds = 2;
constexpr int kFirstListener = 3;

/// What lives as long as the process.
struct Service {
  std::string identifier;
  std::optional<ServiceFolder> folder;
  std::optional<LockFile> lifeLock;
  FileHandle inheritedSocket;
  StatusRegistry::Registration processSection;
  StatusRegistry::Registration channelSection;
  std::shared_ptr<Listener> listener;
  FileHandle signals;
  std::shared_ptr<RunLoopItem> signalItem;
  std::shared_ptr<RunLoopItem> terminationTimer;
  std::atomic<bool> ending{false};
};

Service& service() {
  static auto& one = *new Service;
  return one;
}

[[noreturn]] void giveUp(int status, const std::string& reason) {
  NSLog("xpc: " + reason);
  flushLog();
  _exit(status);
}

sigset_t endingSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGINT);
  return signals;
}

/// Ending signals are read by the I/O thread, so every thread that is made from here on must have them blocked.
void prepareSignals() {
  const sigset_t ending = endingSignals();
  pthread_sigmask(SIG_BLOCK, &ending, nullptr);
  // Each is an error of the write that met it.
  std::signal(SIGPIPE, SIG_IGN);
  std::signal(SIGXFSZ, SIG_IGN);
}

/// The usual soft limit of 1024 descriptors is about what the channel alone may take.
void raiseDescriptorLimit() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == limit.rlim_max) return;
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
}

/// systemd says which device and inode the journal's stream has (systemd.exec(5), $JOURNAL_STREAM).
bool standardErrorIsJournal() {
  const char* stream = std::getenv("JOURNAL_STREAM");
  struct stat status {};
  if (stream == nullptr || fstat(STDERR_FILENO, &status) != 0) return false;
  return stream == std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino);
}

void prepareLog() {
  LogDestination destination;
  destination.syslog = !standardErrorIsJournal();
  if (const char* file = std::getenv(kLogFileVariable); file != nullptr && file[0] == '/') {
    destination.file = file;
    const std::string folder = stringByDeletingLastPathComponent(file);
    for (std::size_t end = folder.find('/', 1); end != std::string::npos; end = folder.find('/', end + 1))
      mkdir(folder.substr(0, end).c_str(), 0700);
    mkdir(folder.c_str(), 0700);
  }
  unsetenv(kLogFileVariable);
  setLogDestination(destination);
}

bool isListeningStream(int descriptor) {
  const auto option = [descriptor](int name) {
    int value = 0;
    socklen_t size = sizeof value;
    return getsockopt(descriptor, SOL_SOCKET, name, &value, &size) == 0 ? value : -1;
  };
  return option(SO_DOMAIN) == AF_UNIX && option(SO_TYPE) == SOCK_STREAM && option(SO_ACCEPTCONN) == 1;
}

/// The socket handed over as sd_listen_fds(3) describes; the variables are removed so that no child takes them for its own.
FileHandle takeInheritedSocket() {
  const char* count = std::getenv("LISTEN_FDS");
  const char* pid = std::getenv("LISTEN_PID");
  const bool isOurs = count != nullptr && pid != nullptr && std::to_string(getpid()) == pid && std::atoi(count) >= 1;
  for (const char* variable : {"LISTEN_FDS", "LISTEN_PID", "LISTEN_FDNAMES"}) unsetenv(variable);
  if (!isOurs) return FileHandle();
  fcntl(kFirstListener, F_SETFD, FD_CLOEXEC);
  if (!isListeningStream(kFirstListener)) giveUp(EX_OSERR, "the descriptor that was handed over is no listening stream socket");
  return FileHandle(kFirstListener);
}

void takeLifeLock(const std::string& identifier) {
  if (const auto refused = refuseName(identifier)) giveUp(EX_OSERR, refused->reason);
  auto opened = ServiceFolder::open(true);
  if (const auto* error = std::get_if<LaunchError>(&opened)) giveUp(EX_OSERR, error->reason);
  auto& folder = service().folder.emplace(std::move(std::get<ServiceFolder>(opened)));
  auto lock = LockFile::open(folder.descriptor(), lifeLockName(identifier), true);
  if (!lock) giveUp(EX_OSERR, "the lock file of " + identifier + " in " + folder.path() + " cannot be opened");
  if (!lock->lock(kFormerProcessLimit)) {
    giveUp(EX_TEMPFAIL, "process " + std::to_string(processOfMark(lock->text())) + " is the service " + identifier + " already");
  }
  lock->setText(processMark());
  service().lifeLock.emplace(std::move(*lock));
}

FileHandle takeSocket() {
  Service& own = service();
  if (own.inheritedSocket.isOpen()) return std::move(own.inheritedSocket);
  const auto lock = takeLaunchLock(*own.folder, own.identifier, kFormerProcessLimit);
  if (const auto* error = std::get_if<LaunchError>(&lock)) giveUp(EX_OSERR, error->reason);
  if (std::holds_alternative<FileHandle>(own.folder->connect(own.identifier))) {
    giveUp(EX_TEMPFAIL, "somebody else listens on " + own.folder->socketPath(own.identifier));
  }
  auto made = makeServiceSocket(*own.folder, std::get<LockFile>(lock), own.identifier);
  if (const auto* error = std::get_if<LaunchError>(&made)) giveUp(EX_OSERR, error->reason);
  return std::move(std::get<FileHandle>(made));
}

[[noreturn]] void endProcess() {
  NSLog("xpc: the service ends");
  flushLog();
  // Not exit: other threads are at work and must not meet destroyed objects.
  _exit(EXIT_SUCCESS);
}

/// I/O thread. The socket goes first, so that no client finds a listener that will never accept.
void terminate() {
  Service& own = service();
  if (own.ending.exchange(true)) return;
  NSLog("xpc: the service was told to end");
  const auto lock = takeLaunchLock(*own.folder, own.identifier, 1s);
  if (const auto* held = std::get_if<LockFile>(&lock)) removeServiceSocket(*own.folder, *held, own.identifier);
  own.listener->terminate("the service was told to end", [] { endProcess(); });
  own.terminationTimer = RunLoopTimer::create(kTerminationSeconds, 0, [] { endProcess(); });
  ioLoop().add(own.terminationTimer);
}

void watchSignals() {
  Service& own = service();
  const sigset_t ending = endingSignals();
  own.signals = FileHandle(signalfd(-1, &ending, SFD_CLOEXEC | SFD_NONBLOCK));
  if (!own.signals.isOpen()) giveUp(EX_OSERR, "signals cannot be received");
  own.signalItem = RunLoopDescriptor::create(own.signals.fileDescriptor(), EPOLLIN, [](unsigned) {
    signalfd_siginfo information{};
    if (read(service().signals.fileDescriptor(), &information, sizeof information) > 0) terminate();
  });
  ioLoop().add(own.signalItem);
}

Object describeProcess() {
  static const Object started(Date::now());
  return Object(Dictionary{{"pid", Object::numberWithInt(getpid())}, {"startedAt", started}, {"identifier", service().identifier}});
}

Object describeChannel() {
  const auto numbers = service().listener->statistics();
  return Object(Dictionary{{"openSockets", Object::numberWithUnsignedLongLong(numbers.openSockets)},
                           {"peers", Object::numberWithUnsignedLongLong(numbers.peers)},
                           {"accepted", Object::numberWithUnsignedLongLong(numbers.accepted)}});
}

}  // namespace

void ServiceProcess::begin(const std::string& identifier) {
  Service& own = service();
  own.identifier = identifier;
  setApplicationIdentifier(identifier);
  prepareSignals();
  raiseDescriptorLimit();
  // Read and removed while there is one thread.
  own.inheritedSocket = takeInheritedSocket();
  prepareLog();
  takeLifeLock(identifier);
  describeProcess();
  own.processSection = StatusRegistry::shared().add("process", describeProcess);
}

void ServiceProcess::serve(Listener::ConnectionFunction function) {
  Service& own = service();
  if (!own.lifeLock) throw Exception(NSInternalInconsistencyException, "ServiceProcess::serve was called before begin");
  own.listener = Listener::create(takeSocket(), std::move(function));
  own.channelSection = StatusRegistry::shared().add("channel", describeChannel);
  watchSignals();
  own.listener->resume();
  // The main queue is served for as long as the process lives, whether or not something is scheduled.
  const auto anchor = RunLoopSource::create([] {});
  RunLoop::main()->add(anchor);
  for (;;) {
    try {
      RunLoop::main()->run();
    } catch (const std::exception& exception) {
      NSLog(std::string("an exception left the main run loop: ") + exception.what());
    }
  }
}

}  // namespace platform::xpc
