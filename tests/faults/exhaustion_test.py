"""Lets memory, descriptors or threads run out at every moment of a small application and of single calls.

Usage: exhaustion_test.py COLLECTOR PROGRAM

Where there are many moments every 13th is tried, with ORBIQ_TORTURE in the environment every one.
Since 3.5, OpenSSL ends the process itself where a thread's first use of it finds no memory; such
trials are told apart.
"""
import concurrent.futures
import os
import signal
import subprocess
import sys
import tempfile

from collector import Collector

COLLECTOR, PROGRAM = sys.argv[1:]
KINDS = ("memory", "descriptors", "threads")
ENDED_BY_OPENSSL = "OpenSSL internal error: assertion failed: data != NULL"
TIME_LIMIT = 60  # for a trial as a whole; what takes so long hangs


def attempt(server, call, kind, first, count):
    """Why the trial failed, or None; and how often it asked."""
    trial = f"-{call}-{kind}-{first}-{count}"
    with tempfile.TemporaryDirectory() as directory:
        command = [PROGRAM, call, directory, server, trial, kind, str(first), str(count)]
        try:
            ran = subprocess.run(command, capture_output=True, timeout=TIME_LIMIT, text=True,
                                 errors="replace")
        except subprocess.TimeoutExpired:
            return f"{trial}: hangs", 0
    said = ran.stdout.strip()
    if ran.returncode == -signal.SIGABRT and ENDED_BY_OPENSSL in ran.stderr:
        return ENDED_BY_OPENSSL, 0
    if ran.returncode != 0:
        return f"{trial}: exit {ran.returncode}, {said}\n{ran.stderr[-2000:]}", 0
    return None, int(said)


def main():
    failures, trials, ended = [], [], 0
    calls = subprocess.run([PROGRAM], stdout=subprocess.PIPE, text=True, check=True).stdout.split()
    with Collector(COLLECTOR) as collector, concurrent.futures.ThreadPoolExecutor(4) as pool:
        server = f"http://127.0.0.1:{collector.port}/auth/"
        for call in calls:
            for kind in KINDS:
                failure, asked = attempt(server, call, kind, 0, 0)
                assert failure is None, failure
                is_all = asked < 200 or os.environ.get("ORBIQ_TORTURE")
                moments = range(1, asked + 1, 1 if is_all else 13)
                print(f"{call}, {kind}: {asked} moments, {len(moments)} tried, alone and eight in a row")
                trials += [(call, kind, first, count) for first in moments for count in (1, 8)]
        tried = {(call, kind) for call, kind, *_ in trials}
        assert {("application", kind) for kind in KINDS} <= tried, "nothing was made to fail"
        # The collector tells only so many accounts apart.
        for some in (trials[i:i + 500] for i in range(0, len(trials), 500)):
            collector.ask("POST", "/api/reset")
            told = list(pool.map(lambda trial: attempt(server, *trial)[0], some))
            hits = collector.counts()["hits"]
            for trial, failure in zip(some, told):
                if failure == ENDED_BY_OPENSSL:
                    ended += 1
                elif failure is not None:
                    failures.append(failure)
                elif trial[0] == "application" and hits.get("B-%s-%s-%d-%d" % trial, 0) == 0:
                    failures.append(f"{trial}: the last hit did not arrive")
    print("\n".join(failures))
    print(f"{len(trials)} trials, {len(failures)} failed, {ended} ended by OpenSSL")
    return 1 if failures else 0


sys.exit(main())
