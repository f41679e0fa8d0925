#!/usr/bin/env python3
"""src/exports.txt, the names that both libraries show, those that the public headers declare, each with
a comment of its own, and those that the host in plain C uses are all the same. Overloads for C++ stand
there under their names as symbols, beside a function that C knows under the plain name.

usage: exports.py SOURCE_DIR SHARED_LIBRARY STATIC_LIBRARY HOST [HEADERS_OF_CLIENT_LIBRARIES...]"""
import pathlib
import re
import subprocess
import sys
import tempfile

source, shared, static, host = pathlib.Path(sys.argv[1]), *sys.argv[2:5]
client_headers = [option for directory in sys.argv[5:] for option in ("-isystem", directory)]
complaints = []


def compare(what, names, expected):
    complaints.extend(f"{what} {name}, which src/exports.txt does not list" for name in sorted(names - expected))
    complaints.extend(f"{what} no {name}, which src/exports.txt lists" for name in sorted(expected - names))


def output_of(*command, **options):
    return subprocess.run(command, check=True, text=True, stdout=subprocess.PIPE, **options).stdout


def dynamic_symbols(path, *options):
    """Name to type, without versions and without the version's own name."""
    lines = output_of("nm", "-D", *options, path).splitlines()
    symbols = {line.split()[-1].split("@")[0]: line.split()[-2] for line in lines}
    return {name: kind for name, kind in symbols.items() if kind != "A"}


def open_symbols_of_archive(path):
    """Defined, global and not hidden. What the C++ library's templates leave behind is weak."""
    rows = (line.split() for line in output_of("readelf", "-sW", path).splitlines())
    return {row[7] for row in rows if row[4:6] == ["GLOBAL", "DEFAULT"] and row[6] != "UND"}


def demangled(name):
    return output_of("c++filt", name).strip()


def plain(names):
    """Overloads for C++ by the name that their declarations have."""
    return {re.match(r"\w+", demangled(name))[0] for name in names}


# A comment (or none), then a declaration marked KEEL_API up to its first parenthesis or semicolon.
MARKED = re.compile(r"(?P<comment>/\*\*(?:[^*]|\*(?!/))*\*/\s*)?(?:extern\s+)?KEEL_API\b(?P<text>[^(;]*)[(;]")


def marked(header):
    names = set()
    for match in MARKED.finditer(header.read_text()):
        name = re.findall(r"\w+", match["text"].split("[")[0])[-1]
        names.add(name)
        if match["comment"] is None:
            complaints.append(f"{header.name}: {name} has no comment")
    return names


def functions_declared_in(directory, headers):
    """As the compiler reads them, marked or not. It lists them as /* file:line:kind */ declaration"""
    text = "".join(f'#include "{header.name}"\n' for header in headers)
    with tempfile.NamedTemporaryFile("r") as listed_here:
        command = ["gcc", "-std=c11", f"-I{directory}", *client_headers, "-fsyntax-only", "-aux-info", listed_here.name, "-x", "c", "-"]
        output_of(*command, input=text)
        listing = listed_here.read()
    return set(re.findall(rf"^/\* {re.escape(str(directory))}/[^:]*:\d+:\w+ \*/ (?!static ).*?(\w+) \(", listing, re.M))


def symbols_that_cpp_calls(directory, headers, overloads):
    """Where it calls each of the overloads with arguments of the types that its symbol tells."""
    text = "".join(f'#include "{header.name}"\n' for header in headers)
    for number, overload in enumerate(overloads):
        name, types = re.fullmatch(r"(\w+)\((.*)\)", demangled(overload)).groups()
        arguments = [f"a{i}" for i, _ in enumerate(types.split(", "))]
        parameters = ", ".join(map(" ".join, zip(types.split(", "), arguments)))
        text += f"void use{number}({parameters}) {{ {name}({', '.join(arguments)}); }}\n"
    assembly = output_of("g++", "-std=c++17", f"-I{directory}", *client_headers, "-S", "-o", "-", "-x", "c++", "-", input=text)
    return set(re.findall(r"\bcall\s+(\w+)", assembly))


lines = (source / "src/exports.txt").read_text().splitlines()
listed = [line for line in lines if line and not line.startswith("#")]
complaints.extend(f"src/exports.txt lists {name} twice" for name in set(listed) if listed.count(name) > 1)
listed = set(listed)

shown = dynamic_symbols(shared, "--defined-only")
compare("libkeel.so shows", shown.keys(), listed)
compare("libkeel.a shows", open_symbols_of_archive(static), listed)

include = source / "include"
headers = [header for header in sorted(include.glob("*.h")) if header.name != "keel.h"]
compare("the headers mark", set().union(*map(marked, headers)), plain(listed))
data = {name for name, kind in shown.items() if kind != "T"}
compare("the headers declare", functions_declared_in(include, headers) | data, plain(listed))
overloads = {name for name in listed if demangled(name) != name}
compare("C++ calls", symbols_that_cpp_calls(include, headers, overloads), overloads)

used = dynamic_symbols(host).keys()
complaints.extend(f"the host does not use {name}" for name in sorted(plain(listed) - used))

print("\n".join(complaints) if complaints else f"{len(listed)} names")
sys.exit(bool(complaints) or not listed)
