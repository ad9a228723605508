"""Lets memory, descriptors or threads run out at every moment of a small application and of single calls.

Usage: exhaustion_test.py COLLECTOR APPLICATION CALLS

Every 13th moment is tried, with ORBIQ_TORTURE in the environment every one. Since 3.5, OpenSSL ends
the process itself where a thread's first use of it finds no memory; such trials are told apart.
"""
import concurrent.futures
import os
import signal
import subprocess
import sys
import tempfile

from collector import Collector

COLLECTOR, APPLICATION, CALLS = sys.argv[1:]
STEP = 1 if os.environ.get("ORBIQ_TORTURE") else 13
ENDED_BY_OPENSSL = "OpenSSL internal error: assertion failed: data != NULL"
TIME_LIMIT = 60  # for the application as a whole; what takes so long hangs


def attempt(server, kind, first, count):
    """Why the application failed, or None; and how often it asked."""
    serial = f"-{kind}-{first}-{count}"
    with tempfile.TemporaryDirectory() as directory:
        command = [APPLICATION, server, directory, serial, kind, str(first), str(count)]
        try:
            ran = subprocess.run(command, capture_output=True, timeout=TIME_LIMIT, text=True,
                                 errors="replace")
        except subprocess.TimeoutExpired:
            return f"{command[3:]}: hangs", 0
    said = ran.stdout.strip()
    if ran.returncode == -signal.SIGABRT and ENDED_BY_OPENSSL in ran.stderr:
        return ENDED_BY_OPENSSL, 0
    if ran.returncode != 0:
        return f"{serial}: exit {ran.returncode}, {said}\n{ran.stderr[-2000:]}", 0
    return None, int(said)


def failing_calls(kind):
    """What the sweep of single calls says, where one failed."""
    with tempfile.TemporaryDirectory() as directory:
        ran = subprocess.run([CALLS, directory, kind, str(STEP if kind == "memory" else 1)],
                             stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
    return [] if ran.returncode == 0 else [f"{kind}: calls, exit {ran.returncode}\n{ran.stdout}"]


def main():
    failures = []
    for kind in ("memory", "descriptors", "threads"):
        failures += failing_calls(kind)
    ended = 0
    with Collector(COLLECTOR) as collector, concurrent.futures.ThreadPoolExecutor(4) as pool:
        server = f"http://127.0.0.1:{collector.port}/auth/"
        trials = []
        for kind, few in (("memory", False), ("descriptors", True), ("threads", True)):
            failure, asked = attempt(server, kind, 0, 0)
            assert failure is None, failure
            assert asked > 0, f"{kind}: nothing was made to fail"
            moments = range(1, asked + 1, 1 if few else STEP)
            print(f"{kind}: {asked} moments, {len(moments)} tried, alone and eight in a row")
            trials += [(kind, first, count) for first in moments for count in (1, 8)]
        # The collector tells only so many accounts apart.
        for some in (trials[i:i + 500] for i in range(0, len(trials), 500)):
            collector.ask("POST", "/api/reset")
            told = list(pool.map(lambda trial: attempt(server, *trial)[0], some))
            hits = collector.counts()["hits"]
            for trial, failure in zip(some, told):
                if failure == ENDED_BY_OPENSSL:
                    ended += 1
                    continue
                if failure is None and hits.get("B-%s-%d-%d" % trial, 0) == 0:
                    failure = f"{trial}: the last hit did not arrive"
                if failure:
                    failures.append(failure)
    print("\n".join(failures))
    print(f"{len(trials)} trials, {len(failures)} failed, {ended} ended by OpenSSL")
    return 1 if failures else 0


sys.exit(main())
