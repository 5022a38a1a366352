"""Runs a command so that nothing of it is left, however it ends: supervise.py COMMAND...

Two processes watch over the command. The guardian adopts whatever it starts, and when the command has ended, or the one that the user sees
(the front) is interrupted or killed, ends all of it and removes the run's temporary folder. The front does the same when the guardian is
killed. Both killed in one moment leave what is running; the folder is removed by the next run.

The folder is in memory where there is room (below KESTRINE_TEST_FOLDER when that is set). The command finds the place for its temporary
files in TMPDIR and KESTRINE_TEST_FOLDER, and its input is empty.
"""
import ctypes
import fcntl
import os
import pathlib
import select
import signal
import stat
import subprocess
import sys
import tempfile

from descendants import end_descendants, reap

PR_SET_PDEATHSIG, PR_SET_CHILD_SUBREAPER = 1, 36
MNT_DETACH = 2
SIGNALS = (signal.SIGINT, signal.SIGTERM, signal.SIGHUP, signal.SIGQUIT)
# Others may read it: some tests run as a user without rights, and watch folders below.
PREFIX, MODE = "kestrine.", 0o755
# What a whole run has been seen to need at once is a tenth of this.
ROOM, FILES = 1 << 30, 300_000

libc = ctypes.CDLL(None, use_errno=True)


def memory_is_fit(folder):
    """Roomy, and programs may be started from it, which a container often forbids."""
    try:
        status, text = os.statvfs(folder), pathlib.Path("/proc/meminfo").read_text()
    except OSError:
        return False
    available = next(int(line.split()[1]) * 1024 for line in text.splitlines() if line.startswith("MemAvailable:"))
    return (os.access(folder, os.W_OK) and not status.f_flag & (os.ST_NOEXEC | os.ST_RDONLY) and available >= 2 * ROOM
            and status.f_bavail * status.f_frsize >= ROOM and (status.f_files == 0 or status.f_favail >= FILES))


def place():
    given = os.environ.get("KESTRINE_TEST_FOLDER", "")
    if given:
        os.makedirs(given, exist_ok=True)
        return os.path.abspath(given)
    return "/dev/shm" if memory_is_fit("/dev/shm") else tempfile.gettempdir()


def lock(folder):
    """Holds the folder for as long as this process and those forked from it live; None when somebody else does, or it has gone."""
    try:
        descriptor = os.open(folder, os.O_RDONLY | os.O_DIRECTORY | os.O_NOFOLLOW)
    except OSError:
        return None
    try:
        fcntl.flock(descriptor, fcntl.LOCK_EX | fcntl.LOCK_NB)
        return descriptor
    except OSError:
        os.close(descriptor)
        return None


def remove(folder):
    """Takes away what is mounted below the folder, and the folder; some tests leave folders without permissions."""
    with open("/proc/self/mountinfo", encoding="utf-8", errors="surrogateescape") as file:
        mounts = [line.split()[4] for line in file]
    for mount in reversed(mounts):
        if mount.startswith(folder + "/"):
            libc.umount2(os.fsencode(mount), MNT_DETACH)
    subprocess.run(["chmod", "-R", "u+rwX", folder], stderr=subprocess.DEVNULL, check=False)
    subprocess.run(["rm", "-rf", "--one-file-system", folder], check=False)


def remove_old(parent):
    """What a run left behind whose two watchers were killed in one moment."""
    def is_ours(entry):
        status = entry.stat(follow_symlinks=False)
        return entry.name.startswith(PREFIX) and status.st_uid == os.getuid() and status.st_mode == stat.S_IFDIR | MODE

    with os.scandir(parent) as entries:
        old = [entry.path for entry in entries if is_ours(entry)]
    for folder in old:
        descriptor = lock(folder)
        if descriptor is not None:
            remove(folder)
            os.close(descriptor)


def make_folder(parent):
    """A folder that only this user can change but others can read, with a place for everybody in it."""
    held = None
    # Until it is locked another run may take it for an old one.
    while held is None or os.fstat(held).st_nlink == 0:
        folder = tempfile.mkdtemp(prefix=PREFIX, dir=parent)
        held = lock(folder)
    os.chmod(folder, MODE)
    os.mkdir(folder + "/t")
    os.chmod(folder + "/t", 0o1777)
    return folder


def start(command, folder):
    """The command, which ends with its parent."""
    guardian = os.getpid()
    pid = os.fork()
    if pid:
        return pid
    try:
        for number in (*SIGNALS, signal.SIGCHLD, signal.SIGPIPE):
            signal.signal(number, signal.SIG_DFL)
        libc.prctl(PR_SET_PDEATHSIG, signal.SIGKILL)
        if os.getppid() != guardian:
            os._exit(1)
        os.dup2(os.open(os.devnull, os.O_RDONLY), 0)
        os.environ.update(KESTRINE_RUN_FOLDER=folder, KESTRINE_TEST_FOLDER=folder + "/t", TMPDIR=folder + "/t")
        os.execvp(command[0], command)
    except OSError as error:
        print(f"supervise.py: {command[0]}: {error.strerror}", file=sys.stderr, flush=True)
    os._exit(127)


def clean_up(folder):
    left = end_descendants()
    if left:
        print(f"supervise.py: these processes do not end: {left}", file=sys.stderr, flush=True)
    remove(folder)


def guard(command, folder, front):
    """The guardian's life; `front` reads the end of the front's. Returns the exit code."""
    os.setsid()
    libc.prctl(PR_SET_CHILD_SUBREAPER, 1)
    awake, wake = os.pipe2(os.O_NONBLOCK | os.O_CLOEXEC)
    signal.set_wakeup_fd(wake, warn_on_full_buffer=False)
    for number in (*SIGNALS, signal.SIGCHLD):
        signal.signal(number, lambda *_: None)
    signal.pthread_sigmask(signal.SIG_UNBLOCK, SIGNALS)
    work, code = start(command, folder), None
    while code is None:
        ready = select.select([awake, front], [], [])[0]
        # Adopted children too: who waits until a process has gone waits for this.
        code = reap().get(work)
        if front in ready or (awake in ready and set(os.read(awake, 512)) & set(SIGNALS)):
            code = 128 + signal.SIGTERM if code is None else code
    clean_up(folder)
    return code if code >= 0 else 128 - code


def main(command):
    parent = place()
    remove_old(parent)
    libc.prctl(PR_SET_CHILD_SUBREAPER, 1)
    interrupted = []
    watched, alive = os.pipe2(os.O_CLOEXEC)

    def interrupt(number, _):
        # The guardian sees the end of the pipe.
        if not interrupted:
            os.close(alive)
        interrupted.append(number)

    signal.pthread_sigmask(signal.SIG_BLOCK, SIGNALS)
    folder = make_folder(parent)
    guardian = os.fork()
    if guardian == 0:
        os.close(alive)
        try:
            os._exit(guard(command, folder, watched))
        finally:
            os._exit(1)
    for number in SIGNALS:
        signal.signal(number, interrupt)
    signal.pthread_sigmask(signal.SIG_UNBLOCK, SIGNALS)
    code = os.waitstatus_to_exitcode(os.waitpid(guardian, 0)[1])
    if code < 0:
        print("supervise.py: the guardian was killed; what it watched over ends too", file=sys.stderr, flush=True)
    if os.path.exists(folder):
        clean_up(folder)
    if interrupted:
        # As a shell expects it of what Ctrl-C ended.
        signal.signal(interrupted[0], signal.SIG_DFL)
        os.kill(os.getpid(), interrupted[0])
    return code if code >= 0 else 128 - code


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
