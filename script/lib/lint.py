"""What script/lint does: lint.py [quick | all | FILE...]"""
import os
import pathlib
import re
import subprocess
import sys
import time

import jobs
import quick_checks
import units

ROOT = pathlib.Path(__file__).resolve().parents[2]
BUILDS = pathlib.Path(os.environ.get("KESTRINE_BUILD_ROOT", ROOT / "build")).resolve()
MOST_LINES = 40


def say(*words):
    print(*words, flush=True)


class Report:
    """Says how each check ended, and counts."""

    def __init__(self):
        self.failures = 0

    def check(self, name, faults):
        started = time.monotonic()
        try:
            found = [line for fault in faults for line in fault.splitlines()]
        except quick_checks.LeftOut as reason:
            say(f"left out {name}, because {reason}")
            return
        for line in found[:MOST_LINES]:
            say(line)
        if len(found) > MOST_LINES:
            say(f"and {len(found) - MOST_LINES} lines more")
        say(f"{'FAILED ' if found else 'ok     '} {name} ({time.monotonic() - started:.0f} s)")
        self.failures += bool(found)


def git(*words):
    done = subprocess.run(["git", *words], cwd=ROOT, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True, check=False)
    return done.stdout.splitlines() if done.returncode == 0 else None


def changed_files():
    """What differs from the main branch, committed or not."""
    for branch in ("origin/main", "main", "HEAD"):
        base = git("merge-base", "HEAD", branch)
        if base:
            say(f"what changed since {base[0][:12]}, where this left {branch}")
            return git("diff", "--name-only", base[0]) + git("ls-files", "-o", "--exclude-standard")
    return git("ls-files", "-co", "--exclude-standard")


def configure(preset):
    """The build that tells how each file is compiled, with its precompiled headers; returns its folder."""
    folder = BUILDS / preset
    for words in (["cmake", "--preset", preset, "-B", str(folder)], ["cmake", "--build", str(folder), "--target", "kestrine_pch", "kestrine_test_pch"]):
        done = subprocess.run(words, cwd=ROOT, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False)
        if done.returncode != 0:
            say(done.stdout)
            sys.exit(f"script/lint: {' '.join(words)} failed")
    return folder


class Analysis:
    """The compilers and clang-tidy, over what was not clean when they last looked."""

    def __init__(self):
        self.sources = units.Sources(ROOT)
        self.stamps = BUILDS / "lint"
        self.stamps.mkdir(parents=True, exist_ok=True)
        self.tidy = (ROOT / ".clang-tidy").read_text() + self.version("clang-tidy")
        self.jobs, self.clean = [], 0

    @staticmethod
    def version(program):
        return subprocess.run([program, "--version"], stdout=subprocess.PIPE, text=True, check=True).stdout

    def add(self, kind, unit, command, facts, words, folder):
        stamp = units.stamp(self.stamps, self.sources, unit, (kind, facts, *command))
        if stamp.exists():
            self.clean += 1
        else:
            name = unit.relative_to(ROOT) if unit.is_relative_to(ROOT) else unit
            self.jobs.append(jobs.Job(f"{kind} {name}", words, folder, stamp))

    def compile(self, build, chosen):
        """The warnings of the compiler of `build`, each file alone."""
        commands = units.compile_commands(build)
        for unit in chosen:
            if unit in commands:
                command = [*commands[unit], "-fsyntax-only"]
                self.add(pathlib.Path(command[0]).name, unit, command, self.version(command[0]), command, build)

    def analyse(self, build, chosen):
        """clang-tidy, on files or groups of files; what a group includes is its files, which count as headers then."""
        commands = units.compile_commands(build)
        for unit in chosen:
            if unit in commands:
                words = ["clang-tidy", "-p", str(build), "--quiet", f"--config-file={ROOT}/.clang-tidy",
                         f"--header-filter=^{re.escape(str(ROOT))}/(src|app|bench|tests|fuzz)/.*", str(unit)]
                self.add("clang-tidy", unit, commands[unit], self.tidy, words, ROOT)

    def run(self, name, report):
        say(f"looking at {len(self.jobs)} of {len(self.jobs) + self.clean}; the others were clean and have not changed")
        # A finding in a header is the same in each unit that includes it.
        seen, found = set(), []

        def told(job, output):
            say(f"FAILED  {job.name}")
            for line in output.splitlines():
                if re.search(r": (error|warning):", line) is None or line not in seen:
                    say(line)
                seen.add(line)
            found.append(job.name)

        jobs.run_all(self.jobs, told)
        report.check(name, found)


def uncompiled(files, commands):
    for name in files:
        if name.endswith(".cpp") and ROOT / name not in commands:
            yield f"{name}: in no target"


def choose(changed, every):
    """The units that show what changed."""
    sources = units.Sources(ROOT)
    paths = [ROOT / name for name in quick_checks.sources(changed) if (ROOT / name).is_file()]
    chosen = [path for path in paths if path in every]
    headers = [path for path in paths if path.suffix == ".h" and not any(path in sources.closure(unit) for unit in chosen)]
    for header, unit in units.representatives(sources, headers, every).items():
        say(f"{header.relative_to(ROOT)}: through {unit.relative_to(ROOT) if unit else 'nothing, since no file includes it'}")
        if unit and unit not in chosen:
            chosen.append(unit)
    return chosen


def build_bench():
    """The build with all targets, optimised: some warnings of g++ come only then."""
    done = subprocess.run(["cmake", "--preset", "bench", "-B", str(BUILDS / "bench")], cwd=ROOT, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                          text=True, check=False)
    if done.returncode == 0:
        done = subprocess.run(["cmake", "--build", str(BUILDS / "bench"), "-j", str(os.cpu_count())], cwd=ROOT, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, text=True, check=False)
    if done.returncode != 0:
        yield done.stdout


def analyse(arguments, files, report):
    everything = arguments == ["all"]
    changed = [] if everything else arguments or changed_files()
    if not everything and not quick_checks.sources(changed):
        say("no source has changed")
        return
    clang = configure("clang")
    every = units.compile_commands(clang)
    report.check("every file is compiled", uncompiled(files, every))
    analysis = Analysis()
    if everything:
        report.check("g++, optimised", build_bench())
        groups = configure("groups")
        chosen = sorted(every)
        analysis.analyse(groups, sorted(units.compile_commands(groups)))
    else:
        chosen = choose(changed, every)
        analysis.analyse(clang, chosen)
    analysis.compile(clang, chosen)
    analysis.compile(configure("gcc"), chosen)
    analysis.run("g++, clang and clang-tidy", report)


def main(arguments):
    report = Report()
    files = quick_checks.project_files(ROOT)
    for name, faults in quick_checks.CHECKS:
        report.check(name, faults(ROOT, files))
    if arguments != ["quick"]:
        for name, lines in quick_checks.line_counts(ROOT, files):
            if quick_checks.LONG < lines <= quick_checks.TOO_LONG:
                say(f"note    {name}: {lines} lines (above {quick_checks.LONG}: is it one idea?)")
        try:
            analyse(arguments, files, report)
        except jobs.Stopped as stopped:
            say("script/lint: stopped; the next run goes on here")
            return 128 + stopped.args[0]
    if report.failures:
        say(f"{report.failures} checks failed")
    return 1 if report.failures else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
