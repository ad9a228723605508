"""The real collector as a child process, for tests."""

import contextlib
import http.client
import json
import signal
import socket
import subprocess
import threading
import urllib.parse


class Collector:
    def __init__(self, path, *flags):
        self.process = subprocess.Popen(
            [path, "--port", "0", *flags], stdout=subprocess.PIPE, text=True)
        self.url = self.process.stdout.readline().strip().removeprefix("listening on ")
        self.lines = []  # read all along: the collector waits when nobody takes its lines
        self.reader = threading.Thread(target=lambda: self.lines.extend(self.process.stdout))
        self.reader.start()
        address = urllib.parse.urlsplit(self.url)
        self.host, self.port = address.hostname, address.port

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.kill()
        self.process.wait()
        self.reader.join()
        self.process.stdout.close()

    def environment(self, directory):
        """What makes an application send to this collector and keep its files in the directory."""
        return {"ORBIQ_AUTHORIZATION_SERVER": f"{self.url}auth/",
                "ORBIQ_LIBRARY_DIRECTORY": str(directory)}

    def connect(self):
        return http.client.HTTPConnection(self.host, self.port, timeout=30)

    def ask(self, method, path, body=None, headers=None):
        with contextlib.closing(self.connect()) as connection:
            connection.request(method, path, body, headers or {})
            answer = connection.getresponse()
            return answer.status, answer.headers, answer.read()

    def hold(self, path, host="x"):
        """Sends a request and leaves it waiting for its answer."""
        connection = socket.create_connection((self.host, self.port), timeout=30)
        connection.sendall(f"GET {path} HTTP/1.1\r\nHost: {host}\r\n\r\n".encode())
        return connection

    def behave(self, **changes):
        status, _, text = self.ask("POST", "/api/behaviour", json.dumps(changes))
        return status, json.loads(text)

    def seen(self):
        return json.loads(self.ask("GET", "/api/exchanges")[2])

    def counts(self):
        return self.seen()["counts"]

    def stop(self, number=signal.SIGTERM):
        self.process.send_signal(number)
        code = self.process.wait(timeout=30)
        self.reader.join()
        return code, self.lines
