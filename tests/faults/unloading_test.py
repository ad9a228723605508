"""Unloads a plugin that uses the library: in the middle of an addition, an exchange and a send.

Usage: unloading_test.py HOST PLUGIN
"""
import http.server
import subprocess
import sys
import tempfile
import threading

HOST, PLUGIN = sys.argv[1:]


class Server(http.server.ThreadingHTTPServer):
    """Holds up the requests whose path begins as it is told, until it is let go."""

    daemon_threads = True

    def __init__(self, held):
        super().__init__(("127.0.0.1", 0), Handler)
        self.held = held
        self.reached = threading.Event()
        self.let_go = threading.Event()
        self.hits = 0
        self.all_hits = threading.Event()
        threading.Thread(target=self.serve_forever, daemon=True).start()

    def url(self, path):
        return "http://127.0.0.1:%d%s" % (self.server_port, path)


class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def do_GET(self):
        if self.path.startswith(self.server.held):
            self.server.reached.set()
            self.server.let_go.wait()
        is_hit = self.path.startswith("/hit/")
        self.server.hits += is_hit
        body = b"" if is_hit else b"access=full|host=%s|cmsVI=7" % self.server.url("/hit/").encode()
        self.send_response(200)
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        self.wfile.write(body)
        if self.server.hits == 50:
            self.server.all_hits.set()

    def log_message(self, *arguments):
        pass


# In the last case nothing is held up: the unloading meets the additions.
for held in ("/auth/", "/hit/", "nothing"):
    server = Server(held)
    with tempfile.TemporaryDirectory() as state:
        host = subprocess.Popen([HOST, PLUGIN, server.url("/auth/")], stdin=subprocess.PIPE,
                                stdout=subprocess.PIPE, env={"XDG_STATE_HOME": state})
        if held != "nothing":
            assert server.reached.wait(60), held
        host.stdin.write(b"\n")
        host.stdin.flush()
        assert host.stdout.readline() == b"unloaded\n", held
        # The library stays and goes on with its work.
        server.let_go.set()
        assert server.all_hits.wait(60), held
        host.stdin.write(b"\n")
        host.stdin.close()
        assert host.wait(60) == 7, (held, host.returncode)
    server.shutdown()
