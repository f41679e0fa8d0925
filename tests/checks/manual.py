#!/usr/bin/env python3
"""The manual and the library tell of the same things. Each public header has its page, and no other page is
there; a page tells of each exported name that its header declares, and of no other function or data; man
finds the page under each of these names; what a page lists it also explains; what it calls a function is
one; the formatters warn of nothing.

usage: manual.py SOURCE_DIR MAN3_DIR [HEADERS_OF_CLIENT_LIBRARIES...]"""
import pathlib
import re
import subprocess
import sys

source, directory = map(pathlib.Path, sys.argv[1:3])
options = ["-I", source / "include"] + [option for path in sys.argv[3:] for option in ("-isystem", path)]
complaints = []


def output_of(*command):
    return subprocess.run(command, check=True, text=True, stdout=subprocess.PIPE, stderr=subprocess.STDOUT).stdout


def compare(what, names, expected):
    complaints.extend(f"{what} {name}, which nothing stands for" for name in sorted(names - expected))
    complaints.extend(f"{what} no {name}" for name in sorted(expected - names))


def section(title, page):
    return "".join(re.findall(rf"^\.Sh {title}\n((?:(?!\.Sh ).*\n)*)", page, re.M))


def told(page):
    """Functions and data that a page lists in its synopsis and describes, both or none."""
    prototypes = set(re.findall(r"^\.Fo (\w+)$", page, re.M)) | set(re.findall(r'^\.Vt "extern .*?(\w+)(?:\[\d+\])?;"$', page, re.M))
    labels = set(re.findall(r"^\.It Fn (\w+)$", section("FUNCTIONS", page), re.M)) | fields(section("DATA", page))
    return prototypes, labels


def fields(page):
    return set(re.findall(r'^\.It ".*?\\fB(\w+)\\fP', page, re.M))


def called(page):
    """What the text of a page calls a function, name(), examples and declarations apart."""
    text = re.sub(r"^\.Bd -literal\n.*?^\.Ed\n", "", page, flags=re.M | re.S)
    return set(re.findall(r"(?<![\w:])(\w+)\(\)", re.sub(r"\\f[BIP]|\\%", "", text)))


def seen_with(header):
    """What a program that includes the header may call: functions and macros, the system's among them."""
    compiler = ["gcc", "-std=gnu11"] if header.suffix == ".h" else ["g++", "-std=c++17", "-x", "c++"]
    code = output_of(*compiler, *options, "-E", "-dD", header)
    return set(re.findall(r"^#define (\w+)", code, re.M)) | set(re.findall(r"\b(\w+) ?\(", code))


def not_in_libc(names):
    """Those that a program cannot be linked with."""
    code = "".join(f"char {name}();" for name in names - {"main"}) + "int main(void) { return 0"
    code += "".join(f" + {name}()" for name in names - {"main"}) + "; }"
    command = ["gcc", "-std=gnu11", "-w", "-fno-builtin", "-o", "/dev/null", "-x", "c", "-"]
    run = subprocess.run(command, input=code, text=True, capture_output=True)
    missing = re.findall(r"undefined reference to `(\w+)'", run.stderr)
    if run.returncode != 0 and not missing:
        sys.exit(run.stderr)
    return sorted(set(missing))


symbols = re.findall(r"^\w+", (source / "src/exports.txt").read_text(), re.M)
exported = set(re.findall(r"^\w+", output_of("c++filt", *symbols), re.M))
headers = [header for header in sorted((source / "include").iterdir()) if header.suffix in (".h", ".hpp")]
files = {path.name: path.read_text() for path in directory.iterdir()}
aliases = {name: re.fullmatch(r"\.so man3/(\S+)\n", text)[1] for name, text in files.items() if text.startswith(".so")}
pages = {name: text for name, text in files.items() if name not in aliases}

compare("the manual has the page", set(pages), {f"{header.name.removesuffix('.h')}.3" for header in headers})

found_under = {}
for header in headers:
    page = pages.get(f"{header.name.removesuffix('.h')}.3", "")
    code = re.sub(r"/\*.*?\*/", "", header.read_text(), flags=re.S)
    declared = {name for name in exported if header.suffix == ".h" and re.search(rf"KEEL_API[^;(]*\b{name}\b", code)}
    for what, names in zip(("its synopsis shows", "it describes"), told(page)):
        if header.suffix == ".h":
            compare(f"{header.name}'s page: {what}", names, declared)
    found_under.update((name, header) for name in declared)
    mute = re.findall(r"^\.It (?:Fn |Dv )?(.+)\n(?=\.It|\.El)", page, re.M)
    complaints.extend(f"{header.name}: {label} has no comment" for label in mute)
    strange = not_in_libc(called(page) - exported - fields(page) - seen_with(header))
    complaints.extend(f"{header.name}'s page names {name}(), which is no function" for name in strange)
compare("the pages tell of", set(found_under), exported)

for alias, page in sorted(aliases.items()):
    if alias.removesuffix(".3") not in told(pages.get(page, ""))[0]:
        complaints.append(f"{alias} is an alias of {page}, which does not tell of it")
compare("man finds", {name.removesuffix(".3") for name in files} & exported, exported - {"fstab"})

for formatter in (["mandoc", "-T", "lint", "-W", "warning"], ["groff", "-ww", "-mdoc", "-Tutf8", "-z"]):
    command = formatter + [directory / name for name in sorted(pages)]
    run = subprocess.run(command, text=True, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    complaints.extend(run.stdout.splitlines() or [f"{formatter[0]} failed"] * (run.returncode != 0))

print("\n".join(complaints) if complaints else f"{len(pages)} pages, {len(aliases)} aliases")
sys.exit(bool(complaints) or not pages or not aliases)
