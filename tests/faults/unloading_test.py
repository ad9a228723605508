"""Unloads a plugin that uses the library: in the middle of an addition, an exchange and a send.

Usage: unloading_test.py COLLECTOR PLUGIN
"""
import subprocess
import sys
import tempfile
import time

from collector import Collector

# Unloads the plugin as soon as it is told to, and ends with 7.
HOST = """
import _ctypes, ctypes, sys
plugin = ctypes.CDLL(sys.argv[1])
plugin.countHits(sys.argv[2].encode())
sys.stdin.readline()
_ctypes.dlclose(plugin._handle)
print("unloaded", flush=True)
sys.stdin.readline()
sys.exit(7)
"""


def wait_until(holds, what):
    deadline = time.monotonic() + 60
    while not holds():
        assert time.monotonic() < deadline, what


# In the last case nothing is held up: the unloading meets the additions.
for held in ("auth", "hit", "none"):
    with Collector(sys.argv[1], "--stall", held) as server, tempfile.TemporaryDirectory() as state:
        host = subprocess.Popen([sys.executable, "-c", HOST, sys.argv[2], server.url + "auth/"],
                                stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                env={"XDG_STATE_HOME": state})
        wait_until(lambda: held == "none" or server.seen()["held"] == 1, held)
        host.stdin.write(b"\n")
        host.stdin.flush()
        assert host.stdout.readline() == b"unloaded\n", held
        # The library stays and goes on with its work.
        server.behave(stall="none")
        wait_until(lambda: server.counts()["hits"].get("ABC") == 50, held)
        host.stdin.close()
        assert host.wait(60) == 7, (held, host.returncode)
