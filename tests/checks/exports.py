#!/usr/bin/env python3
"""The names that libkeel.so shows are exactly those of src/exports.txt, and so are the names that the
public headers declare, each with a comment of its own.

usage: exports.py SOURCE_DIR LIBRARY"""
import pathlib
import re
import subprocess
import sys

source, library = pathlib.Path(sys.argv[1]), sys.argv[2]
failed = False


def compare(what, names, listed):
    global failed
    for name in sorted(names - listed):
        print(f"{what} has {name}, which src/exports.txt does not list")
    for name in sorted(listed - names):
        print(f"{what} lacks {name}, which src/exports.txt lists")
    failed |= names != listed


def shown(path):
    output = subprocess.run(["nm", "-D", "--defined-only", path], check=True, text=True, capture_output=True).stdout
    names = {line.split()[2].split("@")[0] for line in output.splitlines()}
    return names - {"KEEL_1"}  # the version itself


# A comment (or none), then a declaration marked KEEL_API up to its first parenthesis or semicolon.
DECLARATION = re.compile(r"(?P<comment>/\*\*(?:[^*]|\*(?!/))*\*/\s*)?(?:extern\s+)?KEEL_API\b(?P<text>[^(;]*)[(;]")


def declared(header):
    global failed
    names = set()
    for match in DECLARATION.finditer(header.read_text()):
        name = re.findall(r"\w+", match["text"])[-1]
        names.add(name)
        if match["comment"] is None:
            print(f"{header.name}: {name} has no comment")
            failed = True
    return names


listed = [line for line in (source / "src/exports.txt").read_text().splitlines() if line and line[0] != "#"]
if len(set(listed)) != len(listed):
    sys.exit("src/exports.txt lists a name twice")
compare("the library", shown(library), set(listed))
headers = [h for h in sorted((source / "include").glob("*.h")) if h.name != "keel_export.h"]
compare("a header", set().union(*(declared(header) for header in headers)), set(listed))
sys.exit(failed)
