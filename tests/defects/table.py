"""The defects that tests/defects/run puts in, one at a time. Each is what a tired day could do to the code.

`old` must stand in `file` exactly once; `tests` is the test program and `filter` the GoogleTest filter of the tests that must fail.
"""
import dataclasses


@dataclasses.dataclass(frozen=True)
class Defect:
    name: str
    file: str
    old: str
    new: str
    tests: str
    filter: str


DEFECTS = [
]
