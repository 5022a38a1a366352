"""A client of the local channel in another language, written from docs/protocol.md alone, with Python's standard library alone.

  protocol_client.py call       the object-level call that starts a watch
  protocol_client.py message    any message, which is what starts a watch where there are no object-level calls
  protocol_client.py ignored    the same where there are, and it means nothing
  protocol_client.py status     what the running service says of itself
  protocol_client.py watch      asks for a watch and waits until it stands, or has failed
  protocol_client.py reset      takes the flag: says whether it was raised, and resets it

Starts the service where nobody listens. The first three pass the writing end of a pipe along, with a region of shared memory. A message
that starts a watch by itself may be kept with it; after the others the service must close the pipe. What was seen is printed line by line;
the exit code is 1 when the service did not do what the page says.
"""
import array
import contextlib
import fcntl
import grp
import os
import plistlib
import pwd
import signal
import socket
import stat
import struct
import sys
import time
import uuid

SERVICE = "Ostrabyte.FileWatcherXpcService"
HELLO, STATUS_REQUEST, STATUS_REPLY, MESSAGE = 1, 2, 3, 4
VERSION = 1
OFD_GETLK, OFD_SETLK = 36, 37  # fcntl(2)
FLOCK = "hhqqi4x"  # struct flock: type, whence, start, length, pid


class Descriptor(int):
    pass


class SharedMemory:
    def __init__(self, descriptor, size):
        self.descriptor, self.size = descriptor, size


class Date(int):
    """Nanoseconds since 1970."""


class Unsigned(int):
    pass


def counted(data):
    return struct.pack("<I", len(data)) + data


def encode(value, descriptors):
    if value is None:
        return b"\x00"
    if isinstance(value, bool):
        return struct.pack("<BB", 1, value)
    if isinstance(value, Descriptor):
        descriptors.append(int(value))
        return b"\x09"
    if isinstance(value, Date):
        return struct.pack("<Bq", 5, value)
    if isinstance(value, Unsigned):
        return struct.pack("<BQ", 3, value)
    if isinstance(value, int):
        return struct.pack("<Bq", 2, value)
    if isinstance(value, float):
        return struct.pack("<Bd", 4, value)
    if isinstance(value, bytes):
        return b"\x06" + counted(value)
    if isinstance(value, str):
        return b"\x07" + counted(value.encode())
    if isinstance(value, uuid.UUID):
        return b"\x08" + value.bytes
    if isinstance(value, SharedMemory):
        descriptors.append(value.descriptor)
        return struct.pack("<BQ", 10, value.size)
    if isinstance(value, list):
        return struct.pack("<BI", 11, len(value)) + b"".join(encode(element, descriptors) for element in value)
    entries = b"".join(counted(key.encode()) + encode(element, descriptors) for key, element in value.items())
    return struct.pack("<BI", 12, len(value)) + entries


class Decoder:
    """Reads values without descriptors, which is what a service sends of itself."""

    def __init__(self, data):
        self.rest = data

    def take(self, size):
        if size > len(self.rest):
            raise ValueError("the value is cut short")
        taken, self.rest = self.rest[:size], self.rest[size:]
        return taken

    def number(self, form):
        return struct.unpack("<" + form, self.take(struct.calcsize("<" + form)))[0]

    def counted(self):
        return self.take(self.number("I"))

    def value(self):
        tag = self.number("B")
        simple = {1: lambda: bool(self.number("B")), 2: lambda: self.number("q"), 3: lambda: self.number("Q"), 4: lambda: self.number("d"),
                  5: lambda: Date(self.number("q")), 6: self.counted, 7: lambda: self.counted().decode(),
                  8: lambda: uuid.UUID(bytes=self.take(16))}
        if tag == 0:
            return None
        if tag in simple:
            return simple[tag]()
        if tag == 11:
            return [self.value() for _ in range(self.number("I"))]
        if tag == 12:
            return {self.counted().decode(): self.value() for _ in range(self.number("I"))}
        raise ValueError(f"a value of kind {tag}")


def home():
    given = os.environ.get("HOME", "")
    if os.path.isabs(given):
        return given
    try:
        return pwd.getpwuid(os.geteuid()).pw_dir
    except KeyError:
        return "/"


def named(variable, otherwise):
    """What the variable names; relative values count as unset."""
    value = os.environ.get(variable, "")
    return value if os.path.isabs(value) else os.path.join(home(), otherwise)


def state_folder():
    return named("XDG_STATE_HOME", ".local/state")


def is_private(group, owner):
    """Whether the group is the owner's own and has no further members."""
    try:
        user, members = pwd.getpwuid(owner), grp.getgrgid(group)
    except KeyError:
        return False
    return user.pw_gid == group and members.gr_name == user.pw_name and set(members.gr_mem) <= {user.pw_name}


def others_write(about, descriptor):
    if about.st_mode & stat.S_IWOTH:
        return True
    if not about.st_mode & stat.S_IWGRP:
        return False
    listed = "system.posix_acl_access" in os.listxattr(f"/proc/self/fd/{descriptor}")
    return listed or not is_private(about.st_gid, about.st_uid)


def walk(path, make=False):
    """The descriptor (O_PATH) of what is at the path, reached one name at a time; exits where somebody else could have a hand in it."""
    names = [name for name in path.split("/") if name not in ("", ".")][::-1]
    here, followed = os.open("/", os.O_PATH | os.O_DIRECTORY), 0
    while True:
        about = os.fstat(here)
        if about.st_uid not in (os.geteuid(), 0):
            sys.exit(f"something on the way to {path} belongs to user {about.st_uid}")
        is_shared = stat.S_ISDIR(about.st_mode) and about.st_mode & stat.S_ISVTX and names
        if not stat.S_ISSOCK(about.st_mode) and others_write(about, here) and not is_shared:
            sys.exit(f"others may write to something on the way to {path}")
        if not names:
            return here
        name = names.pop()
        if make:
            with contextlib.suppress(FileExistsError):
                os.mkdir(name, 0o700, dir_fd=here)
        following = os.open(name, os.O_PATH | os.O_NOFOLLOW, dir_fd=here)
        if not stat.S_ISLNK(os.fstat(following).st_mode):
            os.close(here)
            here = following
            continue
        followed += 1
        if os.fstat(following).st_uid not in (os.geteuid(), 0) or followed > 40:
            sys.exit(f"there is somebody else's link on the way to {path}")
        target = os.readlink("", dir_fd=following)
        os.close(following)
        names += [part for part in target.split("/") if part not in ("", ".")][::-1]
        if target.startswith("/"):
            os.close(here)
            here = os.open("/", os.O_PATH | os.O_DIRECTORY)


def safe(path, make=False):
    """The path, once it is known to be nobody else's; FileNotFoundError where it is not there."""
    os.close(walk(path, make))
    return path


def socket_folder():
    runtime = os.environ.get("XDG_RUNTIME_DIR", "")
    if runtime:
        if not os.path.isabs(runtime):
            sys.exit("XDG_RUNTIME_DIR is a relative path")
        if os.path.exists(runtime) and os.stat(runtime).st_uid != os.geteuid():
            sys.exit("XDG_RUNTIME_DIR belongs to another user")
        return os.path.join(runtime, "xpc")
    runtime = f"/run/user/{os.geteuid()}"
    if os.path.isdir(runtime) and os.stat(runtime).st_uid == os.geteuid():
        return os.path.join(runtime, "xpc")
    return os.path.join(state_folder(), "xpc-" + socket.gethostname())


def believe(user):
    if user not in (os.geteuid(), 0):
        sys.exit(f"whoever answers is user {user}")


def connect(path):
    """A connected socket; raises FileNotFoundError or ConnectionRefusedError where nobody listens."""
    place = os.open(path, os.O_PATH | os.O_CLOEXEC)
    try:
        client = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        client.setsockopt(socket.SOL_SOCKET, socket.SO_PASSCRED, 1)
        client.setsockopt(socket.SOL_SOCKET, socket.SO_SNDTIMEO, struct.pack("ll", 30, 0))
        client.connect(f"/proc/self/fd/{place}")
        believe(struct.unpack("iII", client.getsockopt(socket.SOL_SOCKET, socket.SO_PEERCRED, 12))[1])
        return client
    finally:
        os.close(place)


def lock(descriptor):
    fcntl.fcntl(descriptor, OFD_SETLK, struct.pack(FLOCK, fcntl.F_WRLCK, os.SEEK_SET, 0, 0, 0))


def is_locked(path):
    """Whether somebody holds the lock, without taking it."""
    try:
        descriptor = os.open(path, os.O_RDWR | os.O_CLOEXEC | os.O_NOFOLLOW)
    except FileNotFoundError:
        return False
    try:
        seen = fcntl.fcntl(descriptor, OFD_GETLK, struct.pack(FLOCK, fcntl.F_WRLCK, os.SEEK_SET, 0, 0, 0))
        return struct.unpack(FLOCK, seen)[0] != fcntl.F_UNLCK
    finally:
        os.close(descriptor)


def program():
    shared = os.environ.get("XDG_DATA_DIRS") or "/usr/local/share:/usr/share"
    for folder in [named("XDG_DATA_HOME", ".local/share")] + [entry for entry in shared.split(":") if os.path.isabs(entry)]:
        path = os.path.join(folder, "xpc-services", SERVICE + ".plist")
        if os.path.lexists(path):
            with open(safe(path), "rb") as description:
                return plistlib.loads(description.read(16384))["Program"]
    sys.exit(f"nobody knows the service {SERVICE}")


def identity(path):
    about = os.lstat(path)
    return f"{about.st_dev} {about.st_ino} {about.st_mtime_ns}"


def bind(folder, record):
    """The service's listening socket, in its place."""
    path, temporary = os.path.join(folder, SERVICE), os.path.join(folder, f".new.{os.getpid()}")
    if os.path.lexists(path):
        os.lseek(record, 0, os.SEEK_SET)
        if os.read(record, 200).decode().split() != identity(path).split():
            sys.exit("the socket was made by somebody else, and nobody listens on it")
        os.unlink(path)
    listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    here = os.open(folder, os.O_PATH | os.O_DIRECTORY | os.O_CLOEXEC)
    listener.bind(f"/proc/self/fd/{here}/{os.path.basename(temporary)}")
    os.close(here)
    os.chmod(temporary, 0o600)
    listener.listen(512)
    os.ftruncate(record, 0)
    os.pwrite(record, identity(temporary).encode(), 0)
    os.rename(temporary, path)
    return listener


NOT_INHERITED = ("LISTEN_", "NOTIFY_SOCKET=", "WATCHDOG_", "JOURNAL_STREAM=", "INVOCATION_ID=")


def become(executable, listener, report):
    """In the process that is to be the service."""
    os.setsid()
    os.chdir("/")
    for number in set(signal.Signals) - {signal.SIGKILL, signal.SIGSTOP}:
        signal.signal(number, signal.SIG_DFL)
    signal.pthread_sigmask(signal.SIG_SETMASK, [])
    # Out of the way of the numbers that are to be had.
    report, socket_number = (fcntl.fcntl(each, fcntl.F_DUPFD_CLOEXEC, 10) for each in (report, listener.fileno()))
    nothing = os.open("/dev/null", os.O_RDWR)
    for descriptor in range(3):
        os.dup2(nothing, descriptor)
    os.dup2(socket_number, 3)
    for number in map(int, os.listdir("/proc/self/fd")):
        if number > 3 and number != report:
            with contextlib.suppress(OSError):
                os.close(number)
    environment = {key: value for key, value in os.environ.items() if not (key + "=").startswith(NOT_INHERITED)}
    environment.update(LISTEN_FDS="1", LISTEN_PID=str(os.getpid()), XPC_LOG_FILE=os.path.join(state_folder(), "xpc", SERVICE + ".log"))
    try:
        os.execve(executable, [executable], environment)
    except OSError as error:
        os.write(report, str(error.errno).encode())
    finally:
        os._exit(127)


def spawn(executable, listener):
    """Starts the program as nobody's child; an error number where it cannot be run, else 0."""
    reading, writing = os.pipe()
    middle = os.fork()
    if middle == 0:
        if os.fork() == 0:
            become(executable, listener, writing)
        os._exit(0)
    os.close(writing)
    os.waitpid(middle, 0)
    said = os.read(reading, 16)
    os.close(reading)
    return int(said or b"0")


def launch(folder, record):
    """Starts the service, with the launch lock held and nobody listening."""
    executable, path = program(), os.path.join(folder, SERVICE)
    listener = bind(folder, record)
    error = spawn(executable, listener)
    listener.close()
    if error != 0:
        os.unlink(path)
        os.ftruncate(record, 0)
        sys.exit(f"{executable} cannot be run: {os.strerror(error)}")
    print("started the service")
    return connect(path)


def reach_or_none(path):
    try:
        return connect(path)
    except (FileNotFoundError, ConnectionRefusedError):
        return None


def take(record):
    """The launch lock, for which others may have to be waited for."""
    for _ in range(12000):
        try:
            return lock(record)
        except (BlockingIOError, PermissionError):
            time.sleep(0.005)
    sys.exit("somebody else has held the launch lock for too long")


def reach():
    """A socket connected to the service, which is started where nobody listens."""
    folder = safe(socket_folder(), make=True)
    path = os.path.join(folder, SERVICE)
    deadline = time.monotonic() + 10
    while time.monotonic() < deadline:
        if client := reach_or_none(path):
            return client
        program()
        record = os.open(os.path.join(folder, f".{SERVICE}.launch"), os.O_RDWR | os.O_CREAT | os.O_CLOEXEC | os.O_NOFOLLOW, 0o600)
        try:
            take(record)
            if client := reach_or_none(path):
                return client
            if not is_locked(os.path.join(folder, f".{SERVICE}.lock")):
                return launch(folder, record)
        finally:
            os.close(record)
        # The former process is about to end.
        time.sleep(0.01)
    sys.exit("the service cannot be reached")


def send(client, kind, payload, descriptors, first):
    data = struct.pack("<IBBH", len(payload), kind, VERSION, len(descriptors)) + payload
    beside = []
    if first:
        beside.append((socket.SOL_SOCKET, socket.SCM_CREDENTIALS, struct.pack("iII", os.getpid(), os.geteuid(), os.getegid())))
    if descriptors:
        beside.append((socket.SOL_SOCKET, socket.SCM_RIGHTS, array.array("i", descriptors)))
    sent = client.sendmsg([data], beside)
    client.sendall(data[sent:])


def receive(client):
    """Kind, payload and the sender's process number (0 where the kernel named none) of the next frame."""
    sender, data = 0, b""
    while len(data) < 8 or len(data) < 8 + struct.unpack_from("<I", data)[0]:
        wanted = 8 if len(data) < 8 else 8 + struct.unpack_from("<I", data)[0]
        more, beside, _, _ = client.recvmsg(wanted - len(data), socket.CMSG_SPACE(12))
        if not more:
            sys.exit("the service closed the connection")
        for level, kind, content in beside:
            if (level, kind) == (socket.SOL_SOCKET, socket.SCM_CREDENTIALS):
                sender, user, _ = struct.unpack("iII", content)
                believe(user)
        data += more
    _, kind, version, descriptors = struct.unpack_from("<IBBH", data)
    if version != VERSION or descriptors != 0:
        sys.exit(f"a frame of version {version} with {descriptors} descriptors")
    return kind, data[8:], sender


def holders(pipe):
    """The other processes that have the pipe open: a link in their folders of descriptors leads to it."""
    about, found = os.fstat(pipe), []
    for process in filter(str.isdigit, os.listdir("/proc")):
        try:
            for name in os.listdir(f"/proc/{process}/fd"):
                seen = os.stat(f"/proc/{process}/fd/{name}")
                if stat.S_ISFIFO(seen.st_mode) and (seen.st_dev, seen.st_ino) == (about.st_dev, about.st_ino):
                    found.append(int(process))
        except OSError:
            pass
    return [process for process in found if process != os.getpid()]


def tell(message, may_keep=False):
    """Sends a message with the descriptors, and sees who takes it and what becomes of them."""
    reading, writing = os.pipe()
    memory = os.memfd_create("shared")
    os.ftruncate(memory, 4096)
    everything = {"nothing": None, "yes": True, "whole": -7, "unsigned": Unsigned(2**64 - 1), "real": 0.5, "date": Date(time.time_ns()),
                  "data": b"\0\xff", "identifier": uuid.uuid4(), "empty": [], "nested": {"inner": "text"}, "pipe": Descriptor(writing),
                  "memory": SharedMemory(memory, 4096)}
    descriptors = []
    payload = encode({**message, **everything}, descriptors)
    client = reach()
    send(client, MESSAGE, payload, descriptors, first=True)
    os.close(writing)
    os.close(memory)
    kind, payload, sender = receive(client)
    if kind != HELLO or payload:
        sys.exit(f"a frame of kind {kind} instead of a hello")
    print(f"greeted by {sender}")
    os.set_blocking(reading, False)
    for _ in range(1200):
        if may_keep and sender in holders(reading):
            print("the service has the pipe")
            return
        try:
            if os.read(reading, 1) == b"":
                print("the service has closed the pipe")
                return
        except BlockingIOError:
            pass
        time.sleep(0.05)
    sys.exit("nobody has the pipe, and it is not closed")


def status():
    client = connect(os.path.join(socket_folder(), SERVICE))
    send(client, STATUS_REQUEST, b"", [], first=True)
    kind, payload, sender = receive(client)
    if kind != STATUS_REPLY:
        sys.exit(f"a frame of kind {kind} instead of the status")
    decoder = Decoder(payload)
    sections = decoder.value()
    if decoder.rest:
        sys.exit("bytes follow the value")
    process, channel = sections["process"][0], sections["channel"][0]
    if process["pid"] != sender:
        sys.exit(f"process {process['pid']} by the status and {sender} by the kernel")
    print(f"process {process['pid']}, {process['identifier']}, started {process['startedAt'] > 0}")
    print(f"{channel['peers']} peers, {channel['accepted']} accepted")
    print(f"{len(sections.get('watches', []))} watches")


def greeted(payload):
    """Sends a message until somebody has greeted, which a service that is about to end does not; the connection."""
    for attempt in range(6):
        time.sleep(0.05 * max(0, attempt - 1))
        client = reach()
        with contextlib.suppress(ConnectionError, SystemExit):
            send(client, MESSAGE, payload, [], first=True)
            if receive(client)[0] == HELLO:
                return client
        client.close()
    sys.exit("nobody takes the message")


def sections():
    """What the service says of itself; nothing where it does not run, which is not to be started by this."""
    folder = socket_folder()
    if not is_locked(os.path.join(folder, f".{SERVICE}.lock")):
        return {}
    client = reach_or_none(os.path.join(safe(folder), SERVICE))
    if client is None:
        return {}
    with client:
        send(client, STATUS_REQUEST, b"", [], first=True)
        kind, payload, _ = receive(client)
    return Decoder(payload).value() if kind == STATUS_REPLY else {}


def watch():
    """Asks for a watch, and stays for as long as it takes to know what became of it."""
    known = max([watch["number"] for watch in sections().get("watches", [])], default=0)
    call = {"interface": "FileWatcherXpcServiceProtocol", "selector": "callToFileWatcher"}
    with greeted(encode(call, [])):
        for _ in range(3000):
            for each in sections().get("watches", []):
                if each["number"] > known and each["state"] != "starting":
                    print(f"{each['state']}: {each['folder']}{': ' + each['reason'] if 'reason' in each else ''}")
                    return
            time.sleep(0.02)
    sys.exit("the watch does not stand")


def preferences():
    return os.path.join(named("XDG_CONFIG_HOME", ".config"), "Preferences")


@contextlib.contextmanager
def writing(domain):
    """The domain's file while nobody else who asks for its lock writes to it; ten seconds are waited for that."""
    path = os.path.join(safe(preferences(), make=True), domain + ".plist")
    deadline = time.monotonic() + 10
    while True:
        held = os.open(path + ".lock", os.O_RDONLY | os.O_CREAT | os.O_CLOEXEC | os.O_NOFOLLOW, 0o600)
        while True:
            try:
                fcntl.flock(held, fcntl.LOCK_EX | fcntl.LOCK_NB)
                break
            except BlockingIOError:
                if time.monotonic() > deadline:
                    sys.exit("somebody has the lock of the preferences and does not give it back")
                time.sleep(0.003)
        try:
            if os.path.samestat(os.fstat(held), os.lstat(path + ".lock")):
                yield os.path.realpath(path)
                return
        except FileNotFoundError:
            pass
        finally:
            os.close(held)


def stamps(about):
    return about.st_dev, about.st_ino, about.st_size, about.st_ctime_ns, about.st_mtime_ns


def read_settled(path):
    """The dictionary and the file's status; an empty one and nothing where there is no file."""
    while True:
        try:
            with open(safe(path), "rb") as file:
                about, data = os.fstat(file.fileno()), file.read()
        except FileNotFoundError:
            return {}, None
        try:
            return plistlib.loads(data), about
        except Exception:  # whatever the module finds wrong
            if time.time() - about.st_mtime > 1:
                sys.exit(f"{path} is no property list")
            time.sleep(0.01)


def replace(path, values, former):
    """Puts the file in place of the former one; False where that is not what was read any more."""
    temporary = f"{path}.{os.getpid()}.tmp"
    with contextlib.suppress(FileNotFoundError):
        os.unlink(temporary)
    new = os.open(temporary, os.O_WRONLY | os.O_CREAT | os.O_EXCL | os.O_CLOEXEC, 0o600)
    with open(new, "wb") as file:
        plistlib.dump(values, file)
        file.flush()
        os.fchmod(new, stat.S_IMODE(former.st_mode) if former else 0o600)
        os.fsync(new)
    try:
        now = os.stat(path)
    except FileNotFoundError:
        now = None
    if (now and stamps(now)) != (former and stamps(former)):
        os.unlink(temporary)
        return False
    os.rename(temporary, path)
    folder = os.open(os.path.dirname(path), os.O_RDONLY | os.O_DIRECTORY)
    os.fsync(folder)
    os.close(folder)
    return True


def reset():
    """Before the changes are looked for, so that those that come meanwhile raise the flag again."""
    with writing(SERVICE) as path:
        while True:
            values, former = read_settled(path)
            if values.get("FileWatcherStatusKey") != "1":
                print("the flag was not raised")
                return
            values["FileWatcherStatusKey"] = "0"
            if replace(path, values, former):
                print("the flag was raised")
                return


def main():
    actions = {
        "call": lambda: tell({"interface": "FileWatcherXpcServiceProtocol", "selector": "callToFileWatcher", "list": [None, [True]]}),
        "message": lambda: tell({"any": "message"}, may_keep=True),
        "ignored": lambda: tell({"any": "message"}),
        "status": status,
        "watch": watch,
        "reset": reset,
    }
    if len(sys.argv) != 2 or sys.argv[1] not in actions:
        sys.exit(__doc__)
    actions[sys.argv[1]]()


if __name__ == "__main__":
    main()
