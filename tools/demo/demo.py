#!/usr/bin/env python3
"""Runs the examples against the collector and compares what both say.

Usage: demo.py BUILD_DIRECTORY. Exits 0 only if every hit arrived, each once.

demo.py BUILD_DIRECTORY --web [COMMAND...] keeps the collector's page open while an example sends a
hit every second, until interrupted; then it exits 0. COMMAND runs the example in a network of its
own, which a relay connects with the collector.
"""

import collections
import json
import os
import pathlib
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time
import urllib.request

PATIENCE = 60  # seconds for one step
TERMINAL = sys.stdout.isatty()
COLOURED = TERMINAL and not os.environ.get("NO_COLOR")
RELAY = pathlib.Path(__file__).with_name("relay.py")
BOLD, DIM, RED, GREEN = 1, 2, 31, 32


class Failure(Exception):
    pass


def coloured(colour, text):
    return f"\033[{colour}m{text}\033[0m" if COLOURED else text


def say(text, colour=BOLD):
    print(coloured(colour, text), flush=True)


def wait_until(what, done):
    end = time.monotonic() + PATIENCE
    while not done():
        if time.monotonic() > end:
            raise Failure(f"waited in vain for {what}")
        time.sleep(0.05)


class Program:
    """A child process in a session of its own, so that only this script is interrupted. Its output
    is shown under its name, or given to `take` line by line."""

    def __init__(self, name, command, environment=None, take=None):
        self.name = name
        self.take = take or self._print
        # However this script ends, its children do not outlive it.
        self.process = subprocess.Popen(["setpriv", "--pdeathsig", "KILL", *command],
                                        stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                        stderr=subprocess.STDOUT, text=True, errors="replace",
                                        env=environment, start_new_session=True)
        self.reader = threading.Thread(target=self._show, daemon=True)
        self.reader.start()

    def _show(self):
        for line in self.process.stdout:
            self.take(line.rstrip())

    def _print(self, line):
        print(f"  {coloured(DIM, f'{self.name:9} |')} {line}", flush=True)

    def wait(self):
        try:
            code = self.process.wait(PATIENCE)
        except subprocess.TimeoutExpired:
            self.kill()
            raise Failure(f"{self.name} did not end") from None
        self.reader.join()
        return code

    def kill(self):
        self.process.kill()
        self.process.wait()
        self.reader.join()


class Demo:
    """Owns the programs that it starts: they end with its `with` block."""

    def __init__(self, build, scratch):
        self.build = build
        self.scratch = scratch
        self.examples = build / "examples"
        self.state = scratch / "state"
        self.state.mkdir()
        self.programs = []

    def __enter__(self):
        return self

    def __exit__(self, *_):
        for program in self.programs:
            if not self.ended(program):
                program.kill()

    def begin(self, take=None):
        port_file = self.scratch / "port"
        self.collector = self.start("collector", [
            self.build / "tools" / "orbiq-collector", "--port", "0", "--port-file", port_file],
            take=take)
        wait_until("the collector's port", lambda: port_file.exists() or self.ended(self.collector))
        if self.ended(self.collector):
            raise Failure("the collector did not start")
        self.url = f"http://127.0.0.1:{port_file.read_text().strip()}"
        self.environment = {name: value for name, value in os.environ.items()
                            if not name.lower().endswith("_proxy")}
        self.environment.update(ORBIQ_AUTHORIZATION_SERVER=self.url + "/auth/",
                                ORBIQ_LIBRARY_DIRECTORY=str(self.state))

    def start(self, name, command, environment=None, take=None):
        self.programs.append(Program(name, command, environment, take))
        return self.programs[-1]

    @staticmethod
    def ended(program):
        return program.process.poll() is not None

    def example(self, name, *arguments):
        return self.start(name, [self.examples / f"orbiq-{name}", *arguments], self.environment)

    def run(self, name, *arguments):
        code = self.example(name, *arguments).wait()
        if code != 0:
            raise Failure(f"{' '.join((name, *arguments))} ended with {code}")

    def ask(self, path, body=None):
        """Not through a proxy that the environment may name."""
        direct = urllib.request.build_opener(urllib.request.ProxyHandler({}))
        data = None if body is None else json.dumps(body).encode()
        with direct.open(urllib.request.Request(self.url + path, data), timeout=PATIENCE) as answer:
            return json.load(answer)

    def expect(self, **expected):
        counts = self.ask("/api/exchanges")["counts"]
        for name, value in expected.items():
            if counts[name] != value:
                raise Failure(f"the collector counts {name} {counts[name]}, expected {value}")
            print(f"  collector counts {name}: {value}", flush=True)

    def audience(self):
        say("1. One hit, a few lines of code")
        self.run("first-hit")
        self.expect(authorizations={"ABC": 1}, hits={"ABC": 1}, hitsUnanswered={})

        say("2. Five hits for each of two accounts, step by step")
        self.ask("/api/reset", {})
        self.run("demo", "hits")
        self.expect(authorizations={"DEMO-1": 1, "DEMO-2": 1}, hits={"DEMO-1": 5, "DEMO-2": 5},
                    hitsUnanswered={})

    def survival(self):
        say("3. A streaming request that the server takes and does not answer")
        self.ask("/api/reset", {})
        self.ask("/api/behaviour", {"stall": "hit"})
        application = self.example("demo", "stream")
        wait_until("the request to reach the collector",
                   lambda: self.ask("/api/exchanges")["held"] == 1 or self.ended(application))
        if self.ended(application):
            raise Failure("the application ended by itself")
        saved = list(self.state.rglob("requests.ser"))
        if len(saved) != 1:
            raise Failure(f"expected one requests file, found {saved}")
        print(f"  requests file: {saved[0].stat().st_size} bytes", flush=True)

        say("4. The application is killed")
        application.kill()
        wait_until("the collector to see it gone", lambda: self.ask("/api/exchanges")["held"] == 0)
        self.expect(hits={}, hitsUnanswered={"DEMO-STREAM": 1})

        say("5. It starts again, and the server answers: the saved request is sent")
        self.ask("/api/behaviour", {"stall": "none"})
        self.run("demo", "resume")
        self.expect(hits={"DEMO-STREAM": 1})

    def web(self, own_network):
        command = [self.examples / "orbiq-demo", "live"]
        if own_network:
            door = self.scratch / "door"
            port = self.url.rpartition(":")[2]
            self.start("relay", [sys.executable, RELAY, "outside", door, port])
            wait_until("the relay", door.exists)
            command = [*own_network, sys.executable, RELAY, "inside", door, port, *command]
        last_lines = collections.deque(maxlen=10)
        application = self.start("demo", command, self.environment, last_lines.append)
        say(f"The collector's page: {self.url}/   (Ctrl-C ends it)")
        has_display = os.environ.get("DISPLAY") or os.environ.get("WAYLAND_DISPLAY")
        if has_display and shutil.which("xdg-open"):
            subprocess.Popen(["xdg-open", self.url + "/"], stdin=subprocess.DEVNULL,
                             stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                             start_new_session=True)
        interrupted = False
        try:
            application.process.wait()
        except KeyboardInterrupt:
            interrupted = True
            for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
                signal.signal(number, signal.SIG_IGN)  # all is ending already
            application.process.send_signal(signal.SIGINT)
        code = application.wait()
        if code != 0 or not interrupted:
            raise Failure("\n".join(["the application ended by itself:", *last_lines]))
        if TERMINAL:
            print()
        print(f"  {last_lines[-1]}", flush=True)

    def finish(self):
        self.collector.process.terminate()
        if self.collector.wait() != 0:
            raise Failure("the collector did not end well")


class Progress:
    """Counts the collector's lines, in place on a terminal."""

    def __init__(self):
        self.arrived = self.lost = 0

    def __call__(self, line):
        if not TERMINAL:
            print(f"  {line}", flush=True)
            return
        words = line.split()
        if words[1:2] != ["hit"]:
            return
        good = words[3] == "200"
        self.arrived += good
        self.lost += not good
        lost = coloured(RED, f"{self.lost} lost") if self.lost else "none lost"
        print(f"\r\033[K  {coloured(GREEN, f'{self.arrived} hits arrived')}, {lost}", end="",
              flush=True)


def interrupt(*_):
    raise KeyboardInterrupt


def show_page(demo, own_network):
    try:
        demo.begin(Progress())
        demo.web(own_network)
        demo.finish()
    except KeyboardInterrupt:
        pass  # before anything was shown
    say("All of it has ended.")


def show_steps(demo):
    demo.begin()
    demo.audience()
    demo.survival()
    demo.finish()
    say("Every hit arrived: 1 + 10 audience hits and 1 streaming request that outlived a kill.",
        GREEN)


def main():
    build, *rest = sys.argv[1:]
    # Also where they were ignored, as a shell does for what it runs in the background.
    for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, interrupt)
    try:
        with tempfile.TemporaryDirectory(prefix="orbiq-demo-") as scratch, \
                Demo(pathlib.Path(build), pathlib.Path(scratch)) as demo:
            if rest[:1] == ["--web"]:
                show_page(demo, rest[1:])
            else:
                show_steps(demo)
    except (Failure, OSError) as failure:
        print(coloured(RED, f"demo: {failure}"), file=sys.stderr)
        return 1
    except KeyboardInterrupt:
        print(coloured(RED, "demo: interrupted"), file=sys.stderr)
        return 130
    return 0


if __name__ == "__main__":
    sys.exit(main())
