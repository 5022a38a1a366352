"""Prints what a test run left out or shortened, and why, from CTest's JUnit file: left_out.py PRESET FILE

One line per reason with the number of tests that gave it, so that a machine without a feature does not hide a second reason in a
long list.
"""
import collections
import re
import sys
import xml.etree.ElementTree as ElementTree

LEFT_OUT = re.compile(r"left out: .*")
SHORTENED = re.compile(r"shortened (?:under the sanitizer|without rights|on a disk): .*")


def reasons(case):
    """What one test case says about itself."""
    output = "\n".join(element.text or "" for element in case.iter("system-out"))
    found = LEFT_OUT.findall(output) + SHORTENED.findall(output)
    skipped = case.find("skipped")
    if not found and skipped is not None and skipped.get("message") != "Unable to find executable":
        found = ["left out: no reason given"]
    return found


def main(preset, path):
    tests = collections.OrderedDict()
    for case in ElementTree.parse(path).iter("testcase"):
        for reason in reasons(case):
            tests.setdefault(reason.strip(), []).append(case.get("name"))
    for reason, names in tests.items():
        others = f" and {len(names) - 1} more" if len(names) > 1 else ""
        print(f"{preset}: {reason} [{names[0]}{others}]")


if __name__ == "__main__":
    main(*sys.argv[1:])
