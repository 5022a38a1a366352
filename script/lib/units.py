"""Files as the compilers see them: what they include of ours, how they are compiled, and whether they were clean the last time."""
import functools
import hashlib
import json
import pathlib
import re
import shlex

INCLUDE = re.compile(rb'^\s*#\s*include\s*"([^"]+)"', re.MULTILINE)
# What a command says about its outputs, which nobody wants here; each with the number of words that belong to it.
OUTPUTS = {"-o": 2, "-c": 1, "-MD": 1, "-MMD": 1, "-MT": 2, "-MF": 2, "-MQ": 2}


class Sources:
    """The project's files and what each includes."""

    def __init__(self, root):
        self.root = root
        self.closure = functools.lru_cache(maxsize=None)(self._closure)
        self.digest = functools.lru_cache(maxsize=None)(lambda path: hashlib.sha256(path.read_bytes()).hexdigest())
        self.included = functools.lru_cache(maxsize=None)(self._included)

    def _included(self, path):
        """The files of ours that `path` names itself."""
        found = []
        for text in INCLUDE.findall(path.read_bytes()):
            name = text.decode(errors="replace")
            for base in (path.parent, self.root / "src", self.root):
                if (base / name).is_file():
                    found.append((base / name).resolve())
                    break
        return found

    def _closure(self, path):
        """`path` and every file of ours that it includes, directly or not."""
        seen, waiting = {path}, [path]
        while waiting:
            for other in self.included(waiting.pop()):
                if other not in seen:
                    seen.add(other)
                    waiting.append(other)
        return frozenset(seen)


def compile_commands(build):
    """Each compiled file with the words of its command, without outputs."""
    commands = {}
    for entry in json.loads((build / "compile_commands.json").read_text()):
        words, kept = shlex.split(entry["command"]), []
        while words:
            count = OUTPUTS.get(words[0], 0)
            if count == 0:
                kept.append(words[0])
            words = words[count or 1:]
        if pathlib.Path(kept[0]).name == "ccache":
            kept = kept[1:]
        commands.setdefault(pathlib.Path(entry["file"]), kept)
    return commands


def stamp(folder, sources, unit, facts):
    """The file that stands for "clean" of this unit as it is: it depends on the content of all that it includes, and on `facts`."""
    key = hashlib.sha256("\0".join(facts).encode())
    for path in sorted(sources.closure(unit)):
        key.update(f"\0{path}\0{sources.digest(path)}".encode())
    return folder / key.hexdigest()


def representatives(sources, headers, units):
    """For each header a unit that includes it, as few as can be; headers that none includes come with None."""
    chosen = {}
    for header in headers:
        if any(header in sources.closure(unit) for unit in chosen.values() if unit):
            chosen[header] = next(unit for unit in chosen.values() if unit and header in sources.closure(unit))
            continue
        including = [unit for unit in units if header in sources.closure(unit)]
        # Its own file before one that names it, and that before one that gets it by way of others; a small one rather than a large one.
        including.sort(key=lambda unit: (unit.with_suffix(".h") != header, header not in sources.included(unit), unit.stat().st_size, unit))
        chosen[header] = including[0] if including else None
    return chosen
