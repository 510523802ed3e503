"""Rules of the house that a compiler does not check. Prints each offence; exit code 1 if there is one."""

import pathlib
import re
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
MAX_FILE_LINES = 700
MAX_FILE_BYTES = 1 << 20

# The layers of src, the lowest first. Each may include itself and what lies below it. What a layer
# needs from above it declares in its upcalls.h, and the upper layer defines it.
LAYERS = ("platform", "frame", "storage", "schema", "index", "objects", "transaction", "api", "check")
STANDARD = re.compile(r"^[a-z_0-9]+$")
UNFINISHED = re.compile(r"\b(TODO|FIXME|XXX|HACK)\b|GTEST_SKIP|\bDISABLED_")
OUTPUT = re.compile(r"\b(printf|puts|abort|exit)\s*\(|std::(cout|cerr|abort|exit)")


def check_source(path: pathlib.PurePosixPath, text: str):
    lines = text.splitlines()
    if len(lines) > MAX_FILE_LINES:
        yield 1, f"{len(lines)} lines, at most {MAX_FILE_LINES}"
    in_platform = path.parts[:2] == ("src", "platform")
    layer = path.parts[1] if path.parts[0] == "src" and len(path.parts) > 2 else None
    for number, line in enumerate(lines, 1):
        if UNFINISHED.search(line):
            yield number, "mark of unfinished work"
        if not line.isascii():
            yield number, "a character beyond ASCII"
        if layer and not in_platform:
            system = re.match(r"#include <([^>]+)>", line)
            if system and not STANDARD.match(system[1]):
                yield number, f"system header <{system[1]}> outside of platform"
            if OUTPUT.search(line):
                yield number, "the library neither prints nor ends the process"
        own = re.match(r'#include "([^"/]+)/', line)
        if layer in LAYERS and own and own[1] in LAYERS and LAYERS.index(own[1]) > LAYERS.index(layer):
            yield number, f"{layer} must not include {own[1]}, which lies above it"


def main() -> int:
    names = subprocess.run(["git", "ls-files"], cwd=ROOT, capture_output=True, text=True, check=True)
    failures = 0
    for name in names.stdout.split("\n"):
        file = ROOT / name
        if not name or not file.is_file():
            continue
        if file.stat().st_size > MAX_FILE_BYTES:
            print(f"{name}: larger than 1 MiB")
            failures += 1
        if file.suffix in (".h", ".cpp"):
            for number, message in check_source(pathlib.PurePosixPath(name), file.read_text("utf-8")):
                print(f"{name}:{number}: {message}")
                failures += 1
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
