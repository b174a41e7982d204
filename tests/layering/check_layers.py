#!/usr/bin/env python3
"""Fails when a source file includes a header of a folder it may not depend on.

Each folder of the engine sits on a layer and may include headers of its own layer's
folder and of lower layers only; stores and services share a layer and do not include
each other. The front ends sit on top and do not include each other.

usage: check_layers.py <source root>
"""
import pathlib
import re
import sys

# folder -> layer; a folder may include folders of a lower layer, and its own.
LAYERS = {
    "core/foundation": 0,
    "core/definitions": 1,
    "core/stores": 2,
    "core/services": 2,
    "core/runtimes": 3,
    "core/execution": 4,
    "core/state": 5,
    "cli": 6,
    "app": 6,
}

INCLUDE = re.compile(r'^\s*#\s*include\s*"([^"]+)"', re.MULTILINE)
SOURCES = {".h", ".hpp", ".cpp", ".cc"}


def folder_of(path: str):
    for folder in LAYERS:
        if path == folder or path.startswith(folder + "/"):
            return folder
    return None


def violations(root: pathlib.Path):
    for folder in LAYERS:
        for source in sorted((root / folder).rglob("*")):
            if source.suffix not in SOURCES or not source.is_file():
                continue
            text = source.read_text(encoding="utf-8", errors="replace")
            for match in INCLUDE.finditer(text):
                target = folder_of(match.group(1))
                if target is None or target == folder:
                    continue
                if LAYERS[target] < LAYERS[folder]:
                    continue
                line = text.count("\n", 0, match.start()) + 1
                relative = source.relative_to(root)
                yield f"{relative}:{line}: {folder}/ may not include {match.group(1)}"


def main() -> int:
    if len(sys.argv) != 2:
        print(__doc__.strip().splitlines()[-1], file=sys.stderr)
        return 2
    found = list(violations(pathlib.Path(sys.argv[1])))
    for problem in found:
        print(problem)
    print(f"{len(found)} forbidden include(s)")
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main())
