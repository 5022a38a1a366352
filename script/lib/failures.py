"""Prints what failed in a test run, shortly, from CTest's JUnit file and its log: failures.py JUNIT LOG

For each failed test its name, how it failed, and the lines around its first complaints: where nobody can look at the logs, these lines are
all there is. How a test failed only the log says.
"""
import pathlib
import re
import sys
import xml.etree.ElementTree as ElementTree

COMPLAINT = re.compile(r"Failure$|ERROR: |WARNING: ThreadSanitizer|runtime error|terminate called|Assertion|Timeout|SUMMARY")
# A line of the list below "The following tests FAILED:".
LISTED = re.compile(r"^\t *\d+ - (.*?) \(([^()]*)\)(?:  .*)?$", re.MULTILINE)
HOW = {"Failed": "failed", "Timeout": "hung: ended at its limit", "Not Run": "could not be started", "SEGFAULT": "crashed: segmentation fault",
       "Subprocess aborted": "crashed: aborted", "Subprocess killed": "crashed: killed", "ILLEGAL": "crashed: illegal instruction",
       "NUMERICAL": "crashed: arithmetic fault", "BAD_COMMAND": "could not be started"}
LINES_AFTER = 7
MOST_LINES = 24
MOST_TESTS = 12
WIDTH = 240


def complaints(text):
    """The lines from each complaint on, without repetition."""
    lines = text.splitlines()
    kept = []
    until = -1
    for number, line in enumerate(lines):
        if COMPLAINT.search(line):
            until = number + LINES_AFTER
        if number <= until:
            kept.append(line[:WIDTH])
    return (kept or [line[:WIDTH] for line in lines[-LINES_AFTER:]])[:MOST_LINES]


def main(path, log):
    """Crashed and hung ones first: they hide what would have come after."""
    _, found, listed = pathlib.Path(log).read_text(errors="replace").rpartition("\nThe following tests FAILED:\n")
    failed = sorted(LISTED.findall(listed) if found else [], key=lambda test: test[1] == "Failed")
    cases = {case.get("name"): case for case in ElementTree.parse(path).iter("testcase")}
    for name, how in failed[:MOST_TESTS]:
        case = cases.get(name)
        seconds = f" ({float(case.get('time')):.1f} s)" if case is not None else ""
        print(f"{name}{seconds}: {HOW.get(how, how)}")
        texts = [] if case is None else [element.text or "" for element in case.iter("system-out")]
        for line in complaints("\n".join(texts)):
            print(f"    {line}")
    if len(failed) > MOST_TESTS:
        print("and " + ", ".join(name for name, _ in failed[MOST_TESTS:]))


if __name__ == "__main__":
    main(*sys.argv[1:])
