"""Runs many commands, as many at once as there are processors, and stops all when it is stopped itself."""
import os
import select
import signal
import subprocess
import tempfile


class Job:
    """`words` to run; `stamp` is made when they succeed."""

    def __init__(self, name, words, folder, stamp):
        self.name, self.words, self.folder, self.stamp = name, words, folder, stamp


class Stopped(Exception):
    """By a signal, whose number it holds."""


def stop(number, _):
    raise Stopped(number)


def run_all(jobs, told):
    """Runs the jobs; calls `told` with each that failed and what it printed. Returns how many failed."""
    waiting, running, failed = list(reversed(jobs)), {}, 0
    for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, stop)
    try:
        while waiting or running:
            while waiting and len(running) < (os.cpu_count() or 1):
                job = waiting.pop()
                output = tempfile.TemporaryFile()
                process = subprocess.Popen(job.words, cwd=job.folder, stdin=subprocess.DEVNULL, stdout=output, stderr=subprocess.STDOUT)
                running[os.pidfd_open(process.pid)] = (job, process, output)
            for descriptor in select.select(list(running), [], [])[0]:
                job, process, output = running.pop(descriptor)
                os.close(descriptor)
                if process.wait() == 0:
                    job.stamp.touch()
                else:
                    failed += 1
                    output.seek(0)
                    told(job, output.read().decode(errors="replace"))
                output.close()
    finally:
        for _, process, _ in running.values():
            process.kill()
            process.wait()
    return failed
