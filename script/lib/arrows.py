"""Holds every include of the sources against the build's lists of who may use whom, and a few rules on the system's headers: arrows.py

A room or a shelf is a folder whose CMakeLists.txt says kestrine_room(TARGET USES target...). A file may include what its own folder holds and
what the list names, nothing by way of others; a room with shelves stands for all of them. The linker finds most wrong arrows, but not one
into a header that needs no code.
"""
import pathlib
import re
import subprocess
import sys

COMMENT = re.compile(r"#.*")
CALL = re.compile(r"(kestrine_room|kestrine_shelves|target_link_libraries|add_executable)\(([^)]*)\)")
INCLUDE = re.compile(r'^\s*#\s*include "([^"]+)"')
SYSTEM_INCLUDE = re.compile(r"^\s*#\s*include <([^>]+)>")
# Which files may not include which headers of the system, and why.
RULES = (
    (re.compile(r"src/(?!platform/network/wire/)|app/"), re.compile(r"curl/"), "only src/platform/network/wire knows libcurl"),
    (re.compile(r"src/(?!platform/)"), re.compile(r"sys/(epoll|inotify|fanotify|socket|un)\b"), "the product knows nothing of the kernel's own interfaces"),
)
KEYWORDS = {"USES", "ALONE", "FOLDERS", "PRIVATE", "PUBLIC", "INTERFACE"}
ROOTS = ("src", "app")


def words_after(words, keyword):
    """The words between `keyword` and the next one."""
    if keyword not in words:
        return []
    rest = words[words.index(keyword) + 1:]
    return rest[:next((i for i, word in enumerate(rest) if word in KEYWORDS), len(rest))]


def read_lists(root):
    """Folder to target, target to what it may use, and room to its shelves, as the build says it."""
    target_of, uses, shelves, programs = {}, {}, {}, {}
    for path in sorted(p for name in ROOTS for p in (root / name).rglob("CMakeLists.txt")):
        folder = path.parent.relative_to(root)
        for call, text in CALL.findall(COMMENT.sub("", path.read_text())):
            words = text.split()
            if call == "kestrine_room":
                target_of[folder] = words[0]
                uses[words[0]] = set(words_after(words, "USES"))
                for sub in words_after(words, "FOLDERS"):
                    target_of[folder / sub] = words[0]
            elif call == "kestrine_shelves":
                shelves[words[0]] = {f"{words[0]}_{shelf}" for shelf in words[1:]}
            elif call == "add_executable":
                programs[words[0]] = [folder / word for word in words[1:]]
            elif words[0] in programs:
                for file in programs[words[0]]:
                    programs[file] = set(words[1:]) - KEYWORDS
    return target_of, uses, shelves, programs


def included(root, text, target_of):
    """The folder that an include names, or None where it is none of ours."""
    for base in (root / "src", root):
        path = base / text
        if path.is_file() and path.parent.relative_to(root) in target_of:
            return path.parent.relative_to(root)
    return None


def system_faults(file, number, line):
    match = SYSTEM_INCLUDE.match(line)
    for who, what, why in RULES:
        if match and who.match(str(file)) and what.match(match.group(1)):
            yield f"{file}:{number}: may not include <{match.group(1)}>; {why}"


def faults(root, files):
    target_of, uses, shelves, programs = read_lists(root)
    for file in files:
        folder = file.parent
        own = target_of.get(folder)
        allowed = uses.get(own, set())
        if file in programs:
            own, allowed = str(file), programs[file] | uses.get(own, set()) | {own}
        elif own is None:
            yield f"{file}: is in no room; its folder's CMakeLists.txt has no kestrine_room"
            continue
        allowed = set().union(allowed, *(shelves.get(name, set()) for name in allowed))
        for number, line in enumerate((root / file).read_text(errors="replace").splitlines(), 1):
            yield from system_faults(file, number, line)
            match = INCLUDE.match(line)
            other = match and included(root, match.group(1), target_of)
            if not other or target_of[other] == own or target_of[other] in allowed:
                continue
            yield f"{file}:{number}: {own} may not use {target_of[other]} (\"{match.group(1)}\"); {folder}/CMakeLists.txt has the list"


def main():
    root = pathlib.Path(__file__).resolve().parents[2]
    listed = subprocess.run(["git", "ls-files", "-co", "--exclude-standard", *ROOTS], cwd=root, stdout=subprocess.PIPE, check=True, text=True)
    files = [pathlib.Path(name) for name in listed.stdout.splitlines() if name.endswith((".h", ".cpp")) and (root / name).is_file()]
    found = list(faults(root, files))
    print("\n".join(found) if found else f"{len(files)} files, no wrong arrow")
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main())
