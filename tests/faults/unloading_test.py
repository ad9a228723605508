"""Unloads a plugin that uses the library: in the middle of an addition, an exchange and a send.

Usage: unloading_test.py PLUGIN
"""
import http.server
import subprocess
import sys
import tempfile
import threading

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


class Handler(http.server.BaseHTTPRequestHandler):
    """Holds up the requests whose path begins as it is told, until it is let go."""

    protocol_version = "HTTP/1.1"
    held = ""
    reached = threading.Event()
    let_go = threading.Event()
    all_hits = threading.Semaphore(0)

    def do_GET(self):
        if self.path.startswith(self.held):
            self.reached.set()
            self.let_go.wait()
        body = b"access=full|host=%s|cmsVI=7" % URL.encode()
        self.send_response(200)
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        self.wfile.write(body)
        if not self.path.startswith("/auth/"):
            self.all_hits.release()

    def log_message(self, *arguments):
        pass


server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler)
server.daemon_threads = True
URL = "http://127.0.0.1:%d/" % server.server_port
threading.Thread(target=server.serve_forever, daemon=True).start()

# In the last case nothing is held up: the unloading meets the additions.
for Handler.held in ("/auth/", "/ABC", "nothing"):
    Handler.reached.clear()
    Handler.let_go.clear()
    with tempfile.TemporaryDirectory() as state:
        host = subprocess.Popen([sys.executable, "-c", HOST, sys.argv[1], URL + "auth/"],
                                stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                env={"XDG_STATE_HOME": state})
        assert Handler.held == "nothing" or Handler.reached.wait(60), Handler.held
        host.stdin.write(b"\n")
        host.stdin.flush()
        assert host.stdout.readline() == b"unloaded\n", Handler.held
        # The library stays and goes on with its work.
        Handler.let_go.set()
        assert all(Handler.all_hits.acquire(timeout=60) for _ in range(50)), Handler.held
        host.stdin.close()
        assert host.wait(60) == 7, (Handler.held, host.returncode)
