"""The processes below this one: finding them, and ending them."""
import os
import signal
import time

# Seconds between the request to end and the end by force, and those after which a process that does not go is given up.
GRACE, LIMIT = 2.0, 30.0


def parent_of(pid):
    """The number of the process's parent, or None when it has gone."""
    try:
        with open(f"/proc/{pid}/stat", "rb") as file:
            # The name before it is in brackets and may hold anything.
            return int(file.read().rpartition(b")")[2].split()[1])
    except (OSError, IndexError):
        return None


def descendants():
    """Everything below this process; nothing else is ever touched."""
    children = {}
    for name in os.listdir("/proc"):
        if name.isdigit():
            children.setdefault(parent_of(name), []).append(int(name))
    found, level = [], [os.getpid()]
    while level:
        level = [child for parent in level for child in children.get(parent, ())]
        found += level
    return found


def send(pid, number):
    """Signals the process that had this number when it was found below us, and no later one."""
    parent = parent_of(pid)
    try:
        process = os.pidfd_open(pid)
    except OSError:
        return
    try:
        if parent is not None and parent_of(pid) in (parent, os.getpid()):
            signal.pidfd_send_signal(process, number)
    except OSError:
        pass
    finally:
        os.close(process)


def reap():
    """Buries what has ended among our own children, adopted ones too; returns their states."""
    states = {}
    while True:
        try:
            pid, status = os.waitpid(-1, os.WNOHANG)
        except ChildProcessError:
            return states
        if pid == 0:
            return states
        states[pid] = os.waitstatus_to_exitcode(status)


def end_descendants():
    """Asks every descendant to end, forces those that do not, and returns the numbers of those that nothing ended."""
    started, asked = time.monotonic(), set()
    while True:
        reap()
        left = descendants()
        waited = time.monotonic() - started
        if not left or waited > LIMIT:
            return left
        for pid in left:
            if waited > GRACE:
                send(pid, signal.SIGKILL)
            elif pid not in asked:
                asked.add(pid)
                send(pid, signal.SIGTERM)
        time.sleep(0.02)
