#!/usr/bin/env python3
"""Keeps two services busy and looks at what they take: usage: soak.py MINUTES WATCHKEEPER HOST NAPPER

Runs in the current directory, on a mount table of its own (tools/soak sees to that). Every ten seconds
it samples each service's memory, descriptors and threads. It fails where a service ends, where an
answer is wrong or missing, where a killed process does not come back, and where the median of the last
third of the samples is above that of the second third by more than SLACK; the first third is warm-up.
The C library gives each thread an arena of its own when it first waits for another's, 280 kB each and 16
of them at the most with two processors: here all share one, so that what grows is the service.
"""

import collections
import os
import re
import shutil
import signal
import socket
import statistics
import subprocess
import sys
import threading
import time

SAMPLE_GAP = 10  # seconds
KILL_GAP = 20
NAPPERS = 5  # each is left alone for longer than the minute after which its pauses are forgotten
SLACK = {"resident kB": 128, "private dirty kB": 128, "descriptors": 1, "threads": 1}

INI = """
[tasks]
summary = 1
[cleanup]
interval = 1
{full} = 50 %, 0.00005 days
[watch]
processes = watch.conf
pause = 1
[remote]
listen = 127.0.0.1:{port}
heartbeat = 127.0.0.1:{beat}
interval = 1
[log]
directory = {full}
records = 1000
"""

failures = []
ending = threading.Event()
answers = {b"ping": 0, b"status": 0, b"rotate": 0, b"heartbeat": 0, b"kill": 0}
RIGHT = {b"ping": rb"pong\n", b"rotate": rb"rotated\n",
         b"status": rb"watchkeeper, up \d+ s, \d+ looks\n.*\nrequests: \d+ answered, \d+ ignored\n"}


def fail(what):
    failures.append(what)
    ending.set()


def endpoint():
    made = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    made.bind(("127.0.0.1", 0))
    made.settimeout(30)
    return made


def ask(client, port, request):
    client.sendto(request, ("127.0.0.1", port))
    try:
        answer = client.recv(65536)
    except TimeoutError:
        answer = b"nothing within 30 s"
    if not re.fullmatch(RIGHT[request], answer, re.DOTALL):
        fail(f"{request} was answered by {answer}")
    answers[request] += 1
    return answer


def keep_asking(port, requests, gap):
    client = endpoint()
    while not ending.is_set():
        for request in requests:
            ask(client, port, request)
        ending.wait(gap)


def take_heartbeats(beat):
    while not ending.is_set():
        try:
            beat.recv(1000)
            answers[b"heartbeat"] += 1
        except TimeoutError:
            fail("no sign of life within 30 s")


def pids_of_nappers(client, port):
    text = ask(client, port, b"status").decode()
    return dict(re.findall(r"^(\S+) +running +pid (\d+) ", text, re.MULTILINE))


def keep_killing(port, names):
    client = endpoint()
    killed = dict.fromkeys(names, "")
    for turn in range(sys.maxsize):
        name = names[turn % len(names)]
        deadline = time.monotonic() + 60
        while (pid := pids_of_nappers(client, port).get(name, "")) in ("", killed[name]):
            if time.monotonic() > deadline:
                fail(f"{name} did not come back")
            if ending.wait(0.5):
                return turn
        os.kill(int(pid), signal.SIGKILL)
        killed[name] = pid
        answers[b"kill"] += 1
        if ending.wait(KILL_GAP):
            return turn


def sample(pid):
    with open(f"/proc/{pid}/smaps_rollup", encoding="ascii") as rollup:
        text = rollup.read()
    return {"resident kB": int(re.search(r"^Rss: +(\d+)", text, re.MULTILINE)[1]),
            "private dirty kB": int(re.search(r"^Private_Dirty: +(\d+)", text, re.MULTILINE)[1]),
            "descriptors": len(os.listdir(f"/proc/{pid}/fd")),
            "threads": len(os.listdir(f"/proc/{pid}/task"))}


def watch(services, seconds):
    samples = {name: [] for name in services}
    begin = time.monotonic()
    while not ending.wait(SAMPLE_GAP) and time.monotonic() - begin < seconds:
        for name, service in services.items():
            if service.poll() is not None:
                fail(f"{name} ended with status {service.returncode}")
            else:
                samples[name].append(sample(service.pid))
    ending.set()
    return samples


def judge(name, samples):
    third = len(samples) // 3
    if third == 0:
        fail(f"{name}: too few samples")
        return
    for what, slack in SLACK.items():
        values = [one[what] for one in samples]
        second = statistics.median(values[third:2 * third])
        last = statistics.median(values[-third:])
        flat = last <= second + slack
        print(f"{name:16} {what:17} first {values[0]:6}  median {statistics.median(values):8.1f}  last "
              f"{values[-1]:6}  thirds {second:8.1f} {last:8.1f}  {'flat' if flat else 'GROWS'}")
        if not flat:
            fail(f"{name}: {what} grow")


def set_up(napper, port, beat):
    full = os.path.abspath("full")
    os.mkdir(full)
    subprocess.run(["mount", "-t", "tmpfs", "-o", "size=32m", "soak", full], check=True)
    names = [f"nap{i}-{os.getpid()}" for i in range(NAPPERS)]
    with open("watch.conf", "w", encoding="ascii") as conf:
        for i, name in enumerate(names, 1):
            shutil.copy(napper, name)
            conf.write(f"proc{i} = {name}, {os.getcwd()}, {name} 86400\n")
    with open("soak.ini", "w", encoding="ascii") as ini:
        ini.write(INI.format(full=full, port=port, beat=beat))
    return names


def count_clean_ups():
    found = 0
    for name in os.listdir("full"):
        with open(f"full/{name}", encoding="utf-8", errors="replace") as log:
            found += log.read().count("] cleaned up ")
    if found == 0:
        fail("nothing was cleaned up")
    print(f"clean-ups in the logs that are left: {found}")


def start(arguments):
    with open("errors", "ab") as errors:
        return subprocess.Popen(arguments, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                stderr=errors, env={**os.environ, "MALLOC_ARENA_MAX": "1"})


def tell_errors():
    with open("errors", encoding="utf-8", errors="replace") as errors:
        lines = collections.Counter(errors.read().splitlines())
    for line, count in lines.items():
        print(f"on standard error, {count} times: {line}")


def end(name, service):
    if service.poll() is None:
        service.terminate()
        status = service.wait(120)
        if status != 0:
            fail(f"{name} ended with status {status} after SIGTERM")


def main():
    minutes, watchkeeper, host, napper = float(sys.argv[1]), *sys.argv[2:5]
    free, beat = endpoint(), endpoint()
    port = free.getsockname()[1]
    free.close()
    names = set_up(napper, port, beat.getsockname()[1])
    services = {"watchkeeper": start([watchkeeper, "soak.ini"]),
                "host": start([host, "full", "settings"])}
    beat.recv(1000)  # it is up
    jobs = [(keep_asking, (port, [b"ping", b"status"], 0.01)), (keep_asking, (port, [b"status"], 0.02)),
            (keep_asking, (port, [b"rotate"], 0.5)), (take_heartbeats, (beat,)),
            (keep_killing, (port, names))]
    threading.excepthook = lambda ended: fail(f"{ended.thread.name} ended by {ended.exc_value!r}")
    threads = [threading.Thread(target=job, args=arguments) for job, arguments in jobs]
    for thread in threads:
        thread.start()
    try:
        samples = watch(services, 60 * minutes)
    finally:
        ending.set()
        for thread in threads:
            thread.join()
        nappers = pids_of_nappers(endpoint(), port) if services["watchkeeper"].poll() is None else {}
        for name, service in services.items():
            end(name, service)
        for pid in nappers.values():
            os.kill(int(pid), signal.SIGKILL)
    for name, taken in samples.items():
        judge(name, taken)
    count_clean_ups()
    tell_errors()
    for what in (what for what, count in answers.items() if count == 0):
        fail(f"there was no {what.decode()}")
    print("answers:", ", ".join(f"{count} {what.decode()}" for what, count in answers.items()))
    for failure in failures:
        print("FAILED:", failure)
    sys.exit(1 if failures else 0)


main()
