"""A client of the local channel in another language, written from docs/protocol.md alone, with Python's standard library alone.

  protocol_client.py call       the object-level call that starts a watch
  protocol_client.py message    any message, which is what starts a watch where there are no object-level calls
  protocol_client.py ignored    the same where there are, and it means nothing
  protocol_client.py status     what the running service says of itself

Starts the service where nobody listens. All but `status` pass the writing end of a pipe along, with a region of shared memory. A message
that starts a watch by itself may be kept with it; after the others the service must close the pipe. What was seen is printed line by line;
the exit code is 1 when the service did not do what the page says.
"""
import array
import fcntl
import os
import plistlib
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


def socket_folder():
    runtime = os.environ.get("XDG_RUNTIME_DIR", "")
    if os.path.isabs(runtime):
        return os.path.join(runtime, "xpc")
    runtime = f"/run/user/{os.getuid()}"
    if os.path.isdir(runtime) and os.stat(runtime).st_uid == os.getuid():
        return os.path.join(runtime, "xpc")
    return os.path.join(state_folder(), "xpc-" + socket.gethostname())


def state_folder():
    return os.environ.get("XDG_STATE_HOME") or os.path.expanduser("~/.local/state")


def connect(path):
    """A connected socket; raises FileNotFoundError or ConnectionRefusedError where nobody listens."""
    place = os.open(path, os.O_PATH | os.O_CLOEXEC)
    try:
        client = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        client.setsockopt(socket.SOL_SOCKET, socket.SO_PASSCRED, 1)
        client.connect(f"/proc/self/fd/{place}")
        return client
    finally:
        os.close(place)


def lock(descriptor):
    fcntl.fcntl(descriptor, OFD_SETLK, struct.pack(FLOCK, fcntl.F_WRLCK, os.SEEK_SET, 0, 0, 0))


def is_locked(path):
    """Whether somebody holds the lock, without taking it."""
    descriptor = os.open(path, os.O_RDWR | os.O_CREAT | os.O_CLOEXEC, 0o600)
    try:
        seen = fcntl.fcntl(descriptor, OFD_GETLK, struct.pack(FLOCK, fcntl.F_WRLCK, os.SEEK_SET, 0, 0, 0))
        return struct.unpack(FLOCK, seen)[0] != fcntl.F_UNLCK
    finally:
        os.close(descriptor)


def program():
    homes = [os.environ.get("XDG_DATA_HOME") or os.path.expanduser("~/.local/share")]
    for folder in homes + (os.environ.get("XDG_DATA_DIRS") or "/usr/local/share:/usr/share").split(":"):
        path = os.path.join(folder, "xpc-services", SERVICE + ".plist")
        if os.path.exists(path):
            with open(path, "rb") as description:
                return plistlib.load(description)["Program"]
    sys.exit(f"nobody knows the service {SERVICE}")


def identity(path):
    about = os.lstat(path)
    return f"{about.st_dev} {about.st_ino} {about.st_mtime_ns}"


def bind(folder, record):
    """The service's listening socket, in its place."""
    path, temporary = os.path.join(folder, SERVICE), os.path.join(folder, f".{os.getpid()}")
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
    listener.listen(64)
    os.ftruncate(record, 0)
    os.pwrite(record, identity(temporary).encode(), 0)
    os.rename(temporary, path)
    return listener


def spawn(executable, listener):
    log = os.path.join(state_folder(), "xpc", SERVICE + ".log")
    os.makedirs(os.path.dirname(log), mode=0o700, exist_ok=True)
    if os.fork() != 0:
        return
    os.setsid()
    os.chdir("/")
    for number in set(signal.Signals) - {signal.SIGKILL, signal.SIGSTOP}:
        signal.signal(number, signal.SIG_DFL)
    signal.pthread_sigmask(signal.SIG_SETMASK, [])
    nothing = os.open("/dev/null", os.O_RDWR)
    for descriptor in range(3):
        os.dup2(nothing, descriptor)
    os.dup2(listener.fileno(), 3)
    os.set_inheritable(3, True)
    os.closerange(4, 4096)
    environment = dict(os.environ, LISTEN_FDS="1", LISTEN_PID=str(os.getpid()), XPC_LOG_FILE=log)
    try:
        os.execve(executable, [executable], environment)
    finally:
        os._exit(127)


def reach():
    """A socket connected to the service, which is started where nobody listens."""
    folder = socket_folder()
    os.makedirs(folder, mode=0o700, exist_ok=True)
    path = os.path.join(folder, SERVICE)
    record = os.open(os.path.join(folder, f".{SERVICE}.launch"), os.O_RDWR | os.O_CREAT | os.O_CLOEXEC, 0o600)
    try:
        for _ in range(600):
            try:
                return connect(path)
            except (FileNotFoundError, ConnectionRefusedError):
                pass
            executable = program()
            try:
                lock(record)
            except (BlockingIOError, PermissionError):
                time.sleep(0.05)
                continue
            try:
                return connect(path)
            except (FileNotFoundError, ConnectionRefusedError):
                pass
            if not is_locked(os.path.join(folder, f".{SERVICE}.lock")):
                listener = bind(folder, record)
                spawn(executable, listener)
                print("started the service")
                return connect(path)
            # The former process is about to end.
            fcntl.fcntl(record, OFD_SETLK, struct.pack(FLOCK, fcntl.F_UNLCK, os.SEEK_SET, 0, 0, 0))
            time.sleep(0.05)
        sys.exit("the service cannot be reached")
    finally:
        os.close(record)


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
                sender = struct.unpack("iII", content)[0]
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


def main():
    actions = {
        "call": lambda: tell({"interface": "FileWatcherXpcServiceProtocol", "selector": "callToFileWatcher", "list": [None, [True]]}),
        "message": lambda: tell({"any": "message"}, may_keep=True),
        "ignored": lambda: tell({"any": "message"}),
        "status": status,
    }
    if len(sys.argv) != 2 or sys.argv[1] not in actions:
        sys.exit(__doc__)
    actions[sys.argv[1]]()


if __name__ == "__main__":
    main()
