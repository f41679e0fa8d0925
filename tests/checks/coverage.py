#!/usr/bin/env python3
"""Prints how many lines and branches of src/ ran in the tests of the coverage preset, and which lines did
not; fails below the floors.

usage: coverage.py BUILD_DIR"""
import json
import pathlib
import subprocess
import sys

FLOORS = {"lines": 95, "branches": 85}  # per cent

build = pathlib.Path(sys.argv[1])
source = pathlib.Path(__file__).resolve().parents[2] / "src"


def output_of(*command):
    run = subprocess.run(command, text=True, capture_output=True)
    if run.returncode != 0:
        sys.exit(run.stderr)
    return run.stdout


profiles = list((build / "profiles").glob("*.profraw"))
output_of("llvm-profdata", "merge", "-o", build / "all.profdata", *profiles)
# What is tested inside the open twin is counted in the test programs, all else in the shared library.
twins = [f"-object={program}" for program in sorted((build / "tests").glob("*_internal_test"))]
report = output_of("llvm-cov", "export", f"-instr-profile={build / 'all.profdata'}", build / "libkeel.so", *twins, source)
measured = json.loads(report)["data"][0]


def lines_not_run(file):
    """Of the segments of a file: line, column, count, has a count, begins a region, is a gap."""
    return sorted({line for line, _, count, counts, begins, gap in file["segments"] if counts and begins and not gap and count == 0})


for file in sorted(measured["files"], key=lambda file: file["filename"]):
    missed = lines_not_run(file)
    if missed:
        print(f"{pathlib.Path(file['filename']).name}: not run: {', '.join(map(str, missed))}")

failed = False
for what, floor in FLOORS.items():
    total = measured["totals"][what]
    print(f"{what}: {total['covered']} of {total['count']} ran, {total['percent']:.2f} %; the floor is {floor} %")
    failed = failed or total["count"] == 0 or total["percent"] < floor
sys.exit(failed)
