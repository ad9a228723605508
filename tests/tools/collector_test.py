"""Drives the real collector over loopback sockets. Its path is the one argument."""

import contextlib
import email.utils
import functools
import http.client
import json
import os
import pathlib
import re
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time
import unittest

import jsonschema

import collector

COLLECTOR = sys.argv.pop(1)
Collector = functools.partial(collector.Collector, COLLECTOR)
MANUAL = pathlib.Path(__file__).parents[2] / "docs/man/orbiq-collector.1"


class Events:
    """One event stream, read event by event."""

    def __init__(self, collector, position=None):
        self.connection = collector.connect()
        self.connection.request("GET", "/api/events",
                                headers={"Last-Event-ID": position} if position else {})
        self.answer = self.connection.getresponse()
        self.position = None
        self.totals = {}
        self.state = {}

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.answer.close()
        self.connection.close()

    def news(self):
        """The name of the next event that tells of exchanges, and their serials."""
        event = {}
        while event.get("event") not in ("snapshot", "exchanges"):
            event = {}
            while line := self.answer.readline().decode().rstrip("\n"):
                name, _, value = line.partition(": ")
                event[name] = value
            if event.get("event") == "state":
                self.state = json.loads(event["data"])
        self.position = event["id"]
        self.data = json.loads(event["data"])
        self.totals = self.data["totals"]
        return event["event"], [exchange["serial"] for exchange in self.data["exchanges"]]


def fields(body):
    return dict(field.split("=", 1) for field in body.decode().split("|"))


class CollectorTest(unittest.TestCase):
    def test_answers_counts_records_and_forgets(self):
        with tempfile.NamedTemporaryFile() as record, \
                Collector("--record", record.name) as collector:
            own = f"http://127.0.0.1:{collector.port}/hit/"
            self.assertEqual(collector.url, f"http://127.0.0.1:{collector.port}/")
            status, headers, body = collector.ask("GET", "/auth/S1")
            self.assertEqual((status, fields(body)["access"], fields(body)["host"]),
                             (200, "full", own))
            skew = email.utils.parsedate_to_datetime(headers["Date"]).timestamp() - time.time()
            self.assertLess(abs(skew), 30)
            again = fields(collector.ask("GET", "/auth/S1")[2])
            self.assertNotEqual(int(again["cmsVI"]), int(fields(body)["cmsVI"]))
            connection = collector.connect()  # one kept-alive connection for all
            for _ in range(20):
                connection.request("GET", "/hit/S%201?x", headers={"User-Agent": "P\t\xe4"})
                self.assertEqual(connection.getresponse().read(), b"")
                self.assertIsNotNone(connection.sock)
            connection.close()

            seen = collector.seen()
            self.assertEqual(seen["counts"], {"total": 22, "authorizations": {"S1": 2},
                                              "hits": {"S%201?x": 20}, "hitsAnsweredOtherwise": {},
                                              "hitsUnanswered": {}})
            last = seen["exchanges"][-1]
            self.assertEqual((len(seen["exchanges"]), last["kind"], last["serial"], last["status"],
                              last["userAgent"]), (22, "hit", "S%201?x", 200, "P\t\ufffd"))
            # Debian 13's server library refuses this one itself.
            malformed = collector.ask("GET", "/hit/E", headers={"User-Agent": "P\x1b[2J"})[0]
            exchanges = collector.seen()["exchanges"]
            last = exchanges[-1]
            self.assertEqual([json.loads(line) for line in record], exchanges)
            self.assertEqual((last["number"], last["serial"], last["status"]),
                             (23, "E", malformed))
            self.assertEqual(collector.ask("POST", "/api/reset")[0], 200)
            self.assertEqual(collector.counts()["total"], 0)
            for method, path in (("GET", "/page"), ("POST", "/hit/S1"), ("GET", "/authS1")):
                self.assertEqual(collector.ask(method, path)[0], 404)
            code, lines = collector.stop()
            self.assertEqual((code, len(lines)), (0, 23))
            self.assertRegex(lines[-2], r'^\d{4}-\d\d-\d\dT[\d:.]+Z hit S%201\?x 200 "P\?\?"$')
            self.assertNotIn("\x1b", lines[-1])

    def test_keeps_the_newest_exchanges_and_all_counts(self):
        with Collector() as collector:
            connection = collector.connect()
            for number in range(10_003):
                connection.request("GET", f"/hit/S{number}")
                connection.getresponse().read()
            connection.close()
            seen = collector.seen()
            serials = [exchange["serial"] for exchange in seen["exchanges"]]
            self.assertEqual((len(serials), serials[0], serials[-1]), (10_000, "S3", "S10002"))
            self.assertEqual(seen["counts"]["total"], 10_003)
            self.assertEqual(seen["counts"]["hits"]["(others)"], 3)
            with Events(collector) as events:
                told = [events.news() for _ in range(10)]
            self.assertEqual([name for name, _ in told], ["snapshot"] + 9 * ["exchanges"])
            self.assertEqual([serial for _, part in told for serial in part], serials)
            with Events(collector, events.position.rpartition(".")[0] + ".2") as events:
                self.assertEqual(events.news()[0], "snapshot")  # what follows is forgotten

    def test_behaviour_changes_the_answers(self):
        with Collector("--access", "denied", "--host", "http://h/", "--date-skew-seconds", "-3600",
                       "--auth-status", "500", "--hit-status", "404") as collector:
            status, headers, body = collector.ask("GET", "/auth/S")
            self.assertEqual((status, fields(body)["access"], fields(body)["host"]),
                             (500, "denied", "http://h/"))
            skew = email.utils.parsedate_to_datetime(headers["Date"]).timestamp() - time.time()
            self.assertLess(abs(skew + 3600), 30)
            self.assertEqual(collector.ask("GET", "/hit/S")[0], 404)
            self.assertEqual(collector.counts()["hitsAnsweredOtherwise"], {"S": 1})
            self.assertEqual(collector.seen()["exchanges"][-1]["applied"], {"hitStatus": 404})

            status, now = collector.behave(access="é\"", host=None, authStatus=200)
            self.assertEqual((status, now["access"], now["host"], now["hitStatus"]),
                             (200, "é\"", None, 404))
            answer = fields(collector.ask("GET", "/auth/S")[2])
            self.assertEqual((answer["access"], answer["host"]),
                             ("é\"", f"http://127.0.0.1:{collector.port}/hit/"))
            self.assertEqual(collector.behave(delayMs=300)[0], 200)
            collector.ask("GET", "/hit/S")
            last = collector.seen()["exchanges"][-1]
            self.assertGreaterEqual(last["tookMs"], 300)
            self.assertEqual(last["applied"], {"hitStatus": 404, "delayMs": 300})

    def test_goes_on_when_nobody_reads_its_lines(self):
        ours, theirs = os.pipe()
        with subprocess.Popen([COLLECTOR, "--port", "0"], stdout=theirs) as process, \
                open(ours, encoding="utf-8") as lines:
            os.close(theirs)
            port = int(lines.readline().rstrip("/\n").rpartition(":")[2])
            with contextlib.closing(http.client.HTTPConnection("127.0.0.1", port)) as connection:
                for number in range(1_000):
                    connection.request("GET", f"/hit/{number}", headers={"User-Agent": 400 * "x"})
                    connection.getresponse().read()
                while lines.readline().split()[2:3] != ["99"]:  # there is room in the pipe again
                    pass
                connection.request("GET", "/hit/last")
                connection.getresponse().read()
            process.terminate()
            self.assertEqual(process.wait(timeout=30), 0)
            self.assertRegex(lines.read(), r"\(\d+ lines were not read\)\n[^\n]* hit last 200")

    def test_malformed_answers(self):
        with Collector("--access", "denied", "--date-skew-seconds", "60") as collector:
            def malformed(kind):
                self.assertEqual(collector.behave(malformed=kind)[0], 200)
                return collector.ask("GET", "/auth/S")

            def marks():
                return collector.seen()["exchanges"][-1]["applied"]

            self.assertEqual(set(fields(malformed("missing-field")[2])), {"access", "host"})
            self.assertNotIn("Date", malformed("no-date")[1])
            self.assertEqual(marks(), {"malformed": "no-date", "access": "denied"})
            self.assertIsNone(email.utils.parsedate(malformed("bad-date")[1]["Date"]))
            self.assertRaises(UnicodeDecodeError, malformed("not-utf8")[2].decode)
            self.assertEqual(malformed("empty")[2], b"")
            self.assertEqual(marks(), {"malformed": "empty", "dateSkewSeconds": 60})
            with self.assertRaises(http.client.IncompleteRead) as cut:
                malformed("cut")
            self.assertEqual(fields(cut.exception.partial)["access"], "denied")
            self.assertEqual(marks()["malformed"], "cut")
            self.assertIn("cmsVI", fields(malformed("none")[2]))

    def test_stalls_until_released_and_forgets_clients_that_leave(self):
        with Collector() as collector:
            collector.behave(stall="hit")
            self.assertEqual(collector.ask("GET", "/auth/S")[0], 200)
            with contextlib.ExitStack() as clients:
                # However many are stalled or idle, the next one is answered.
                for _ in range(150):
                    clients.enter_context(collector.hold("/hit/gone"))
                    clients.enter_context(socket.create_connection((collector.host, collector.port)))
                while collector.seen()["held"] != 150:
                    pass
            held = collector.hold("/hit/S")
            while collector.counts()["hitsUnanswered"].get("gone") != 150:
                pass
            self.assertEqual(collector.counts()["hits"], {})
            collector.behave(stall="auth")
            self.assertTrue(held.recv(100).startswith(b"HTTP/1.1 200"))
            held.close()
            seen = collector.seen()
            self.assertEqual(seen["counts"]["hits"], {"S": 1})
            self.assertEqual([seen["exchanges"][at]["applied"] for at in (0, 1, -1)],
                             [{}, {"stall": "hit"}, {"stall": "hit"}])

    def test_ends_promptly_on_a_signal(self):
        for number in (signal.SIGINT, signal.SIGTERM):
            with Collector("--stall", "both", "--delay-ms", "600000") as collector:
                idle = collector.connect()
                idle.request("GET", "/api/behaviour")
                idle.getresponse().read()
                held = [collector.hold("/auth/S"), collector.hold("/hit/S")]
                while collector.seen()["held"] != 2:
                    pass
                code, lines = collector.stop(number)
                self.assertEqual(code, 0)
                self.assertEqual(sorted(line.split()[1:4] for line in lines),
                                 [["auth", "S", "unanswered"], ["hit", "S", "unanswered"]])
                for connection in held:
                    self.assertEqual(connection.recv(1), b"")
                    connection.close()
                idle.close()

    def test_event_stream_goes_on_from_a_position_and_ends_with_the_collector(self):
        with Collector() as collector:
            collector.ask("GET", "/hit/A")
            with Events(collector) as events:
                self.assertEqual(events.news(), ("snapshot", ["A"]))
                collector.ask("GET", "/hit/B")
                self.assertEqual(events.news(), ("exchanges", ["B"]))
                position = events.position
            collector.ask("GET", "/hit/C")
            with Events(collector, position) as events:
                self.assertEqual(events.news(), ("exchanges", ["C"]))
                collector.ask("POST", "/api/reset")
                self.assertEqual(events.news(), ("snapshot", []))
                collector.ask("GET", "/hit/D")
                events.news()
                old = events.position
            collector.ask("POST", "/api/reset")
            for unknown in (old, position + "9", "x", position.rpartition(".")[0]):
                with Events(collector, unknown) as events:
                    self.assertEqual(events.news(), ("snapshot", []), unknown)
            # A reader that takes nothing holds up neither the others nor the end.
            stuck = collector.hold("/api/events", f"127.0.0.1:{collector.port}")
            with Events(collector) as events:
                for _ in range(2):
                    connection = collector.connect()
                    for _ in range(1_500):
                        connection.request("GET", "/hit/" + 4_000 * "S")
                        connection.getresponse().read()
                    connection.close()
                told = 0
                while told < 3_000:
                    told += len(events.news()[1])
                self.assertEqual(events.totals["hits"], 3_000)
                self.assertEqual(collector.stop()[0], 0)
                self.assertEqual(events.answer.read(), b"")  # raises if the stream was cut
            stuck.close()

    def test_keeps_web_pages_of_other_origins_out(self):
        with Collector() as collector:
            own = f"127.0.0.1:{collector.port}"
            for allowed, headers in (
                    (True, {"Origin": "http://" + own, "Sec-Fetch-Site": "same-origin"}),
                    (True, {"Host": f"localhost:{collector.port}"}), (False, {"Origin": "null"}),
                    (False, {"Origin": f"http://localhost:{collector.port}"}),
                    (False, {"Sec-Fetch-Site": "cross-site"}),
                    (False, {"Host": f"evil.example:{collector.port}"})):
                status = collector.ask("GET", "/%61pi/exchanges", headers=headers)[0]
                self.assertEqual(status, 200 if allowed else 403, headers)
                if allowed:
                    self.assertEqual(collector.ask("POST", "/api/reset", "{}", headers)[0], 200)
                else:
                    with self.assertRaises(ConnectionError):
                        collector.ask("POST", "/api/reset", "{}", headers)
            status, headers, _ = collector.ask("GET", "/", headers={"Sec-Fetch-Site": "cross-site"})
            self.assertEqual(status, 200)
            self.assertIn("default-src 'none'", headers["Content-Security-Policy"])

    def test_interface_is_what_its_description_says(self):
        with Collector("--stall", "hit") as collector:
            described = json.loads(collector.ask("GET", "/api/openapi.json")[2])
            operations = [(path, method) for path in described["paths"]
                          for method in described["paths"][path]]

            def check(schema, value):
                schema = {"allOf": [schema], "components": described["components"]}
                jsonschema.Draft202012Validator(schema).validate(value)

            collector.ask("GET", "/auth/S")
            collector.hold("/hit/S").close()
            while not collector.counts()["hitsUnanswered"]:
                pass
            with Events(collector) as events:
                events.news()
                for name, value in (("News", events.data), ("State", events.state)):
                    check({"$ref": "#/components/schemas/" + name}, value)
            for path, method in operations:
                if path == "/api/events":
                    continue
                answers = described["paths"][path][method]["responses"]
                for body in ("{}", "[]") if "400" in answers else ("{}",):
                    status, _, text = collector.ask(method.upper(), path, body)
                    self.assertEqual(status, 200 if body == "{}" else 400, path)
                    check(answers[str(status)]["content"]["application/json"]["schema"],
                          json.loads(text))
            pages = re.findall(r"^\.It Cm (GET|POST) Pa (/api/\S+)", MANUAL.read_text(), re.MULTILINE)
            self.assertEqual(sorted(pages), sorted((m.upper(), p) for p, m in operations))

    def test_refuses_what_it_does_not_know_and_changes_nothing(self):
        with Collector("--access", "restricted") as collector:
            before = json.loads(collector.ask("GET", "/api/behaviour")[2])
            for changes, named in (
                    ({"access": "x", "colour": 1}, "colour"), ({"access": 1}, "access"),
                    ({"host": 1}, "host"), ({"authStatus": 99}, "authStatus"),
                    ({"hitStatus": 200.5}, "hitStatus"), ({"hitStatus": 2**64}, "hitStatus"),
                    ({"delayMs": -1}, "delayMs"), ({"stall": "all"}, "none auth hit both"),
                    ({"dateSkewSeconds": "1"}, "dateSkewSeconds"),
                    ({"malformed": None}, "not-utf8")):
                status, answer = collector.behave(**changes)
                self.assertEqual(status, 400, changes)
                self.assertIn(named, answer["error"])
            for body in ("[]", "{", "", "[" * 60_000):
                self.assertEqual(collector.ask("POST", "/api/behaviour", body)[0], 400, body[:9])
            self.assertEqual(collector.ask("POST", "/api/behaviour", " " * 100_000)[0], 413)
            self.assertEqual(json.loads(collector.ask("GET", "/api/behaviour")[2]), before)

    def test_command_line(self):
        with tempfile.TemporaryDirectory() as directory, \
                Collector("--address", "::1", "--port-file", directory + "/port") as collector:
            status, _, body = collector.ask("GET", "/auth/S")
            self.assertEqual(fields(body)["host"], f"http://[::1]:{collector.port}/hit/")
            with open(directory + "/port", encoding="ascii") as file:
                self.assertEqual(int(file.read()), collector.port)
            for code, flags, text in (
                    (1, ["--port", str(collector.port), "--address", "::1"], "cannot listen"),
                    (1, ["--port", "0", "--port-file", directory + "/no/port"], "cannot write"),
                    (1, ["--port", "0", "--record", directory], "cannot write"),
                    (2, ["--address", "0.0.0.0"], "0.0.0.0"), (2, ["--port", "65536"], "65536"),
                    (2, ["--stall", "all"], "stall must be one of"), (2, ["--colour"], "colour"),
                    (2, ["--access", os.fsdecode(b"\xff")], "access must be a text in UTF-8")):
                ended = subprocess.run([COLLECTOR, *flags], capture_output=True, timeout=30)
                self.assertEqual(ended.returncode, code, flags)
                self.assertIn(text, ended.stderr.decode(errors="replace"))
            said = subprocess.check_output([COLLECTOR, "--version"], text=True)
            self.assertRegex(said, r"^orbiq-collector \d+\.\d+\.\d+\n$")
        with Collector("--record", "/dev/full") as collector:
            collector.ask("GET", "/hit/S")
            self.assertEqual(collector.stop()[0], 1)  # the record is not whole


if __name__ == "__main__":
    unittest.main()
