"""The checks of script/lint that need no compiler. Each yields what it found wrong, a line each."""
import os
import pathlib
import re
import shutil
import subprocess

import arrows

TOO_LONG, LONG = 500, 300
# Left-over notes do not belong into the project. The files that name them to find them are left alone.
NOTES = re.compile(r"\b(FIXME|TODO|HACK)\b")
WORD_LISTS = ("script/lib/quick_checks.py", "tests/system/LintScript.cpp")


class LeftOut(Exception):
    """The check could not be made on this machine."""


def project_files(root):
    """What git knows or would add, without what is gone."""
    listed = subprocess.run(["git", "ls-files", "-co", "--exclude-standard", "-z"], cwd=root, stdout=subprocess.PIPE, check=True)
    names = (name.decode(errors="surrogateescape") for name in listed.stdout.split(b"\0") if name)
    return sorted({name for name in names if (root / name).is_file() and not (root / name).is_symlink()})


def sources(files):
    return [name for name in files if name.endswith((".h", ".cpp"))]


def format_faults(root, files):
    if shutil.which("clang-format") is None:
        raise LeftOut("clang-format is not installed")
    names = sources(files)
    groups = [names[start:start + 40] for start in range(0, len(names), 40)]
    started = []
    for group in groups:
        if len(started) >= os.cpu_count():
            yield from formatted(started.pop(0))
        started.append(subprocess.Popen(["clang-format", "--dry-run", "-Werror", *group], cwd=root, stderr=subprocess.PIPE, text=True))
    for process in started:
        yield from formatted(process)


def formatted(process):
    """One line for each file that clang-format complains about."""
    errors = process.communicate()[1]
    named = dict.fromkeys(re.findall(r"^([^:\n]+:\d+):\d+: error:", errors, re.MULTILINE))
    seen = set()
    for place in named:
        if place.split(":")[0] not in seen:
            seen.add(place.split(":")[0])
            yield f"{place}: not as clang-format has it; script/lint --fix mends it"
    if process.returncode != 0 and not named:
        yield errors.strip()


def line_counts(root, files):
    for name in sources(files):
        yield name, (root / name).read_bytes().count(b"\n")


def length_faults(root, files):
    for name, lines in line_counts(root, files):
        if lines > TOO_LONG:
            yield f"{name}: {lines} lines; above {TOO_LONG} there are two ideas in it"


def arrow_faults(root, files):
    roomed = [pathlib.Path(name) for name in sources(files) if name.split("/")[0] in arrows.ROOTS]
    yield from arrows.faults(root, roomed)


def word_faults(root, files):
    """Paths of this checkout and of this user, and left-over notes."""
    paths = [f"{root}/", os.environ.get("HOME", "/nowhere").rstrip("/") + "/.", "/tmp/" + "build-"]
    for name in files:
        data = (root / name).read_bytes()
        if b"\0" in data or name in WORD_LISTS:
            continue
        for number, line in enumerate(data.decode(errors="replace").splitlines(), 1):
            for word in [path for path in paths if path in line] + NOTES.findall(line):
                yield f"{name}:{number}: {word}"


def script_faults(root, files):
    """The syntax of what no compiler sees."""
    for name in files:
        with open(root / name, "rb") as file:
            first = file.read(32)
        if first.startswith(b"#!/usr/bin/env bash") or first.startswith(b"#!/bin/sh") or name.endswith(".sh"):
            done = subprocess.run(["bash", "-n", name], cwd=root, stderr=subprocess.PIPE, text=True, check=False)
            if done.returncode != 0:
                yield done.stderr.strip()
        elif first.startswith(b"#!/usr/bin/env python3") or name.endswith(".py"):
            try:
                compile((root / name).read_bytes(), name, "exec")
            except SyntaxError as error:
                yield f"{name}:{error.lineno}: {error.msg}"


def defect_faults(root, _):
    done = subprocess.run(["tests/defects/run", "--check"], cwd=root, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False)
    if done.returncode != 0:
        yield done.stdout.strip()


CHECKS = (
    ("format", format_faults),
    ("lengths", length_faults),
    ("rooms and shelves", arrow_faults),
    ("words", word_faults),
    ("scripts", script_faults),
    ("defects fit the sources", defect_faults),
)
