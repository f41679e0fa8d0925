#!/usr/bin/env python3
"""Every public header compiles, alone and behind every other one, as C11 and as C++17, with gcc and with
clang, without a warning; keel.hpp does so in each C++ since then; and each is guarded under its own name.

usage: headers.py SOURCE_DIR [HEADERS_OF_CLIENT_LIBRARIES...]"""
import concurrent.futures
import itertools
import os
import pathlib
import subprocess
import sys

include = pathlib.Path(sys.argv[1]) / "include"
headers = sorted(h.name for h in include.glob("*.h"))
COMPILERS = [("gcc", "c", "c11"), ("g++", "c++", "c++17"), ("clang", "c", "c11"), ("clang++", "c++", "c++17")]
LATER = [(compiler, "c++", standard) for compiler in ("g++", "clang++") for standard in ("c++17", "c++20", "c++2b")]
FLAGS = ["-fsyntax-only", "-Wall", "-Wextra", "-Wpedantic", "-Werror", f"-I{include}"]
FLAGS += [option for directory in sys.argv[2:] for option in ("-isystem", directory)]


def compile_headers(job):
    (compiler, language, standard), names = job
    text = "".join(f"#include <{name}>\n" for name in names) + "extern int a_declaration;\n"
    command = [compiler, *FLAGS, f"-std={standard}", "-x", language, "-"]
    run = subprocess.run(command, input=text, text=True, capture_output=True)
    return "" if run.returncode == 0 else f"{compiler} -std={standard}, {' '.join(names)}:\n{run.stderr}"


def guard_complaint(name):
    guard = "KEEL_" * (not name.startswith("keel.")) + name.upper().replace(".", "_")
    guarded = f"#ifndef {guard}\n#define {guard}\n" in (include / name).read_text()
    return "" if guarded else f"{name}: not guarded by {guard}"


# A header behind itself stands for the header alone.
jobs = list(itertools.product(COMPILERS, itertools.product(headers, repeat=2)))
headers.append("keel.hpp")
jobs += itertools.product(LATER, itertools.product(headers, ["keel.hpp"]))
with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
    complaints = [c for c in pool.map(compile_headers, jobs) if c]
complaints += [c for c in map(guard_complaint, headers) if c]
print("\n".join(complaints))
print(f"{len(jobs)} compilations, {len(complaints)} complaints")
sys.exit(bool(complaints) or not jobs)
