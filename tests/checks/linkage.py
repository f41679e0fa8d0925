#!/usr/bin/env python3
"""Hosts in C and in C++ are compiled and linked in many ways, with the shared and with the static library,
and run:
- those that make no use of libcurl or the MySQL client library link without them and load neither, also
  where they include the headers of the families that need them;
- those that do use one link it as the only other library, in any order, and reach it; those that forget
  it are told by the linker;
- those that take a function's address past the headers' macros do without, and are told at run time.

usage: linkage.py SOURCE_DIR LIBRARY_DIR CURL_FLAGS MYSQL_FLAGS HEADERS_OF_CLIENT_LIBRARIES [PROGRAMS...]
PROGRAMS are to load neither library either. Flags and headers are lists with semicolons in between."""
import collections
import concurrent.futures
import itertools
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile

source, library = (pathlib.Path(path).resolve() for path in sys.argv[1:3])
curl, mysql, client_headers = (text.split(";") for text in sys.argv[3:6])
programs = sys.argv[6:]
INCLUDES = [f"-I{source}/include", *(f for directory in client_headers if directory for f in ("-isystem", directory))]
WARNINGS = ["-Wall", "-Wextra", "-Wpedantic", "-Werror"]
CLIENT_LIBRARY = re.compile(r"lib(curl|mariadb|mysqlclient|perconaserverclient)\b")

PLAIN = '#include <xlog.h>\nint main(void) { return log_print(0, 0x40, "a line") == -1; }\n'
HOST = """#include <xdb_mysql.h>
#include <xftp.h>
#include <stdio.h>
#include <string.h>

static int check(int result, int expected) {
    if (result != expected)
        printf("%%d in place of %%d\\n", result, expected);
    return result != expected;
}

int main(int argc, char *argv[]) {
    const char *local = argv[argc - 1];
    static MySQLConfig config;
    static MySQLConnection connection;
    ftp_opt quiet = {5, 5, 0, 0, 0, NULL};
    strcpy(config.unix_socket, "/nowhere/mysql.sock");
    (void)local, (void)quiet, (void)connection;
    return %s;
}
"""
URL = '"ftp://127.0.0.1:1/file"'  # nobody listens there
ARGUMENTS = {
    "ftp_upload": f'{URL}, "/dev/null", "user", "secret", &quiet',
    "ftp_download": f'{URL}, local, "user", "secret", &quiet',
    "ftp_command": f'{URL}, "user", "secret", &quiet, "NOOP", (char *)NULL',
    "ftp_rename": f'{URL}, "user", "secret", &quiet, "from", "to"',
    "MySQLConnectionInit": "&connection, &config",
}
REACHED = {name: f"check({name}({arguments}), CURLE_COULDNT_CONNECT)" for name, arguments in ARGUMENTS.items()}
REACHED["MySQLConnectionInit"] = f"check(MySQLConnectionInit({ARGUMENTS['MySQLConnectionInit']}), 0) | check(connection.connect(&connection), 2002)"
ABSENT = {"ftp_upload": 52, "ftp_download": 52, "ftp_command": 21, "ftp_rename": 21, "MySQLConnectionInit": -1}


def by_address(name):
    calls = f"({name})({ARGUMENTS[name]})", f"(*&{name})({ARGUMENTS[name]})"
    return " | ".join(f"check({call}, {ABSENT[name]})" for call in calls)


FTP = " | ".join(text for name, text in REACHED.items() if name.startswith("ftp_"))
CLIENTS = {"ftp": (curl, FTP), "mysql": (mysql, REACHED["MySQLConnectionInit"])}
HOSTS = {"plain": PLAIN, "includes": HOST % "check(0, 0)", "address": HOST % " | ".join(map(by_address, ARGUMENTS))}
HOSTS |= {name: HOST % text for name, (_, text) in CLIENTS.items()}
HOSTS |= {name: HOST % text for name, text in REACHED.items()}

Build = collections.namedtuple("Build", "compiler language options linkers")
Job = collections.namedtuple("Job", "build linker kind host needed client_first")
COMPILERS = [("gcc", "c"), ("g++", "cpp"), ("clang", "c"), ("clang++", "cpp")]
OPTIONS = {"c": [["-O0"], ["-O2"], ["-O2", "-fno-pie"], ["-O2", "-fPIC"], ["-O2", "-flto"]], "cpp": [["-O0"], ["-O2"], ["-O2", "-flto"]]}


def linkers_for(compiler, options):
    """Each compiler optimises at link time together with its own linkers."""
    if "-flto" not in options:
        return ["bfd", "gold", "lld"]
    return ["lld"] if "clang" in compiler else ["bfd", "gold"]


BUILDS = [Build(compiler, language, tuple(options), linkers_for(compiler, options)) for compiler, language in COMPILERS for options in OPTIONS[language]]


def jobs_of(build):
    for linker, kind, host in itertools.product(build.linkers, ["shared", "static"], HOSTS):
        in_every_way = itertools.product(["--as-needed", "--no-as-needed"], [False, True])
        for needed, client_first in in_every_way if host in CLIENTS else [("--as-needed", False)]:
            yield Job(build, linker, kind, host, needed, client_first)


def client_of(host):
    return CLIENTS[host][0] if host in CLIENTS else []


def run(command, **variables):
    environment = os.environ | {"LC_ALL": "C"} | variables
    done = subprocess.run(command, text=True, env=environment, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    return done.returncode, f"{' '.join(command)}\n{done.stdout}"


def object_of(build, host):
    return f"{'_'.join([build.compiler, *build.options, host])}.o"


def compile_host(build, host):
    standard = "-std=c11" if build.language == "c" else "-std=c++17"
    status, output = run([build.compiler, *build.options, standard, *WARNINGS, *INCLUDES, "-c", f"{host}.{build.language}", "-o", object_of(build, host)])
    return output if status != 0 else None


def link_command(job, program):
    pie = ["-no-pie"] if "-fno-pie" in job.build.options else []
    keel = ["-lkeel", f"-Wl,-rpath,{library}"] if job.kind == "shared" else ["-l:libkeel.a", "-lstdc++", "-pthread"]
    client = client_of(job.host)
    libraries = client + keel if job.client_first else keel + client
    return [job.build.compiler, *job.build.options, *pie, f"-fuse-ld={job.linker}", f"-Wl,{job.needed}", object_of(job.build, job.host), f"-L{library}", *libraries, "-o", program]


def names_the_missing(output, host):
    function = "curl_easy_init" if host.startswith("ftp_") else "mysql_init"
    return re.search(rf"undefined (reference to|symbol:) .?{function}\b", output) is not None


def loads_complaint(program, wanted):
    """Of the two client libraries, what a program and its libraries need."""
    status, output = run([program], LD_TRACE_LOADED_OBJECTS="1")  # which is what ldd does
    loaded = set(CLIENT_LIBRARY.findall(output.split("\n", 1)[1]))
    return None if status == 0 and loaded == wanted else f"{output}loads {loaded or 'neither'}"


def check_program(job, program):
    wanted = {flag[2:] for flag in client_of(job.host) if flag.startswith("-l")}
    complaint = loads_complaint(f"./{program}", wanted)
    if complaint is not None:
        return complaint
    status, output = run([f"./{program}", f"{program}.fetched"])
    return None if status == 0 else f"{output}status {status}"


def link_and_run(number, job):
    program = f"host{number}"
    command = link_command(job, program)
    status, output = run(command)
    if job.host in ARGUMENTS:
        return None if status != 0 and names_the_missing(output, job.host) else f"{output}links, or does not name what is missing"
    if status != 0:
        return output
    complaint = check_program(job, program)
    os.remove(program)
    return complaint and f"{' '.join(command)}\n{complaint}"


missing = [tool for tool in ["ld.bfd", "ld.gold", "ld.lld", *(c for c, _ in COMPILERS)] if shutil.which(tool) is None]
if missing:
    sys.exit(f"not installed: {', '.join(missing)}")
jobs = [job for build in BUILDS for job in jobs_of(build)]
complaints = [c for c in (loads_complaint(program, set()) for program in programs) if c is not None]
with tempfile.TemporaryDirectory() as home, concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
    os.chdir(home)
    for host, language in itertools.product(HOSTS, ["c", "cpp"]):
        pathlib.Path(f"{host}.{language}").write_text(HOSTS[host])
    complaints += [c for c in pool.map(compile_host, *zip(*itertools.product(BUILDS, HOSTS))) if c]
    if not complaints:
        complaints += [c for c in pool.map(link_and_run, itertools.count(), jobs) if c]
    os.chdir("/")
print("\n".join(complaints))
print(f"{len(jobs)} hosts, {len(complaints)} complaints")
sys.exit(bool(complaints) or not jobs)
