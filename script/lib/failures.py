"""Prints what failed in a test run, shortly, from CTest's JUnit file: failures.py FILE

For each failed test its name and the lines around its first complaints: where nobody can look at the logs, these lines are all there is.
"""
import re
import sys
import xml.etree.ElementTree as ElementTree

COMPLAINT = re.compile(r"Failure$|ERROR: |WARNING: ThreadSanitizer|runtime error|terminate called|Assertion|Timeout|SUMMARY")
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


def main(path):
    failed = [case for case in ElementTree.parse(path).iter("testcase") if case.find("failure") is not None]
    for case in failed[:MOST_TESTS]:
        print(f"{case.get('name')} ({float(case.get('time')):.1f} s)")
        for line in complaints("\n".join(element.text or "" for element in case.iter("system-out"))):
            print(f"    {line}")
    if len(failed) > MOST_TESTS:
        print(f"and {len(failed) - MOST_TESTS} more")


if __name__ == "__main__":
    main(*sys.argv[1:])
