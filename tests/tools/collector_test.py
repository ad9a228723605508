"""Drives the real collector over loopback sockets. Its path is the one argument."""

import concurrent.futures
import contextlib
import email.utils
import functools
import http.client
import json
import os
import pathlib
import signal
import socket
import subprocess
import sys
import tempfile
import time
import unittest

import jsonschema

import collector

COLLECTOR = sys.argv.pop(1)
Collector = functools.partial(collector.Collector, COLLECTOR)


class Events:
    """One event stream, read event by event."""

    def __init__(self, collector, position=""):
        self.connection = collector.connect()
        self.connection.request("GET", "/api/events", headers={"Last-Event-ID": position})
        self.answer = self.connection.getresponse()
        self.data = {}

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.answer.close()
        self.connection.close()

    def news(self):
        """The name of the next event that tells of exchanges, and their serials."""
        for line in self.answer:
            name, _, value = line.decode().rstrip("\n").partition(": ")
            if name == "event":
                kind = value
            elif name == "id":
                self.position = value
            elif name == "data":
                self.data[kind] = json.loads(value)
                if kind != "state":
                    return kind, [each["serial"] for each in self.data[kind]["exchanges"]]
        raise EOFError


def fields(body):
    return dict(field.split("=", 1) for field in body.decode().split("|"))


def flood(port, paths, **headers):
    connection = http.client.HTTPConnection("127.0.0.1", port, timeout=30)
    for path in paths:
        connection.request("GET", path, headers=headers)
        connection.getresponse().read()
        assert connection.sock, "the connection is not kept"
    connection.close()


def skew(headers):
    """In minutes."""
    date = email.utils.parsedate_to_datetime(headers["Date"]).timestamp()
    return round((date - time.time()) / 60)


class CollectorTest(unittest.TestCase):
    def test_answers_counts_records_and_forgets(self):
        with tempfile.NamedTemporaryFile() as record, \
                Collector("--record", record.name) as collector:
            status, headers, body = collector.ask("GET", "/auth/S1")
            self.assertEqual((status, fields(body)["access"], fields(body)["host"], skew(headers)),
                             (200, "full", f"http://127.0.0.1:{collector.port}/hit/", 0))
            again = fields(collector.ask("GET", "/auth/S1")[2])
            self.assertNotEqual(int(again["cmsVI"]), int(fields(body)["cmsVI"]))
            flood(collector.port, 20 * ["/hit/S%201?x"], **{"User-Agent": "P\t\xe4"})
            self.assertEqual(collector.counts(), {
                "total": 22, "authorizations": {"S1": 2}, "hits": {"S%201?x": 20},
                "hitsAnsweredOtherwise": {}, "hitsUnanswered": {}})
            # Debian 13's server library refuses this one itself.
            malformed = collector.ask("GET", "/hit/E", headers={"User-Agent": "P\x1b[2J"})[0]
            exchanges = collector.seen()["exchanges"]
            self.assertEqual([json.loads(line) for line in record], exchanges)
            self.assertEqual([(each["number"], each["serial"], each["status"], each["userAgent"])
                              for each in exchanges[-2:]],
                             [(22, "S%201?x", 200, "P\t\ufffd"),
                              (23, "E", malformed, exchanges[-1]["userAgent"])])
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
            flood(collector.port, (f"/hit/S{number}" for number in range(10_003)))
            seen = collector.seen()
            serials = [exchange["serial"] for exchange in seen["exchanges"]]
            self.assertEqual((len(serials), serials[0], serials[-1]), (10_000, "S3", "S10002"))
            self.assertEqual((seen["counts"]["total"], seen["counts"]["hits"]["(others)"]),
                             (10_003, 3))
            with Events(collector) as events:
                told = [events.news() for _ in range(10)]
            self.assertEqual([name for name, _ in told], ["snapshot"] + 9 * ["exchanges"])
            self.assertEqual([serial for _, part in told for serial in part], serials)

    def test_behaviour_changes_the_answers_and_is_noted(self):
        with Collector("--access", "denied", "--host", "http://h/", "--date-skew-seconds", "-3600",
                       "--auth-status", "500", "--hit-status", "404") as collector:
            def applied():
                return collector.seen()["exchanges"][-1]["applied"]

            def malformed(kind):
                self.assertEqual(collector.behave(malformed=kind)[0], 200)
                return collector.ask("GET", "/auth/S")

            status, headers, body = collector.ask("GET", "/auth/S")
            self.assertEqual((status, fields(body)["access"], fields(body)["host"], skew(headers)),
                             (500, "denied", "http://h/", -60))
            self.assertEqual(collector.ask("GET", "/hit/S")[0], 404)
            self.assertEqual((collector.counts()["hitsAnsweredOtherwise"], applied()),
                             ({"S": 1}, {"hitStatus": 404}))
            collector.behave(access="é\"", host=None, authStatus=200, delayMs=30)
            self.assertEqual(fields(collector.ask("GET", "/auth/S")[2])["access"], "é\"")
            last = collector.seen()["exchanges"][-1]
            self.assertGreaterEqual(last["tookMs"], 30)
            self.assertEqual(last["applied"], {"access": "é\"", "delayMs": 30,
                                               "dateSkewSeconds": -3600})
            collector.behave(delayMs=0)
            self.assertEqual(set(fields(malformed("missing-field")[2])), {"access", "host"})
            self.assertNotIn("Date", malformed("no-date")[1])
            self.assertEqual(applied(), {"malformed": "no-date", "access": "é\""})
            self.assertIsNone(email.utils.parsedate(malformed("bad-date")[1]["Date"]))
            self.assertRaises(UnicodeDecodeError, malformed("not-utf8")[2].decode)
            self.assertEqual(malformed("empty")[2], b"")
            with self.assertRaises(http.client.IncompleteRead) as cut:
                malformed("cut")
            self.assertEqual(fields(cut.exception.partial)["access"], "é\"")

    def test_goes_on_when_nobody_reads_its_lines(self):
        ours, theirs = os.pipe()
        with subprocess.Popen([COLLECTOR, "--port", "0"], stdout=theirs) as process, \
                open(ours, encoding="utf-8") as lines:
            self.addCleanup(process.kill)
            os.close(theirs)
            port = int(lines.readline().rstrip("/\n").rpartition(":")[2])
            flood(port, (f"/hit/{number}?{400 * 'x'}" for number in range(1_000)))
            while " hit 99?" not in lines.readline():  # there is room in the pipe again
                pass
            flood(port, ["/hit/last"])
            process.terminate()
            self.assertRegex(lines.read(), r"\(\d+ lines were not read\)\n[^\n]* hit last 200")

    def test_stalls_until_released_or_ended_and_forgets_clients_that_leave(self):
        with Collector("--stall", "hit") as collector, contextlib.ExitStack() as held:
            with contextlib.ExitStack() as clients:
                # However many are stalled or idle, the next one is answered.
                for _ in range(150):
                    clients.enter_context(collector.hold("/hit/gone"))
                    clients.enter_context(socket.create_connection((collector.host, collector.port)))
                while collector.seen()["held"] != 150:
                    pass
            first = held.enter_context(collector.hold("/hit/S"))
            while collector.counts()["hitsUnanswered"].get("gone") != 150:
                pass
            self.assertEqual(collector.counts()["hits"], {})
            collector.behave(stall="auth", delayMs=600_000)
            later = [held.enter_context(collector.hold(path)) for path in ("/auth/L", "/hit/L")]
            self.assertTrue(first.recv(100).startswith(b"HTTP/1.1 200"))
            self.assertEqual(collector.counts()["hits"], {"S": 1})
            self.assertEqual(collector.seen()["exchanges"][-1]["applied"], {"stall": "hit"})
            while collector.seen()["held"] != 2:
                pass
            code, lines = collector.stop(signal.SIGINT)
            self.assertEqual((code, sorted(line.split()[1:4] for line in lines[-2:])),
                             (0, [["auth", "L", "unanswered"], ["hit", "L", "unanswered"]]))
            self.assertEqual([connection.recv(1) for connection in later], [b"", b""])

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
            with Events(collector, position) as events:  # which is forgotten
                self.assertEqual(events.news(), ("snapshot", []))
            # A reader that takes nothing holds up neither the others nor the end. The other one
            # reads beside the flood: the server cuts off whoever takes nothing for five seconds.
            stuck = collector.hold("/api/events", f"127.0.0.1:{collector.port}")
            with Events(collector) as events, concurrent.futures.ThreadPoolExecutor() as beside:
                flooded = beside.submit(flood, collector.port, 3_000 * ["/hit/" + 4_000 * "S"])
                told = 0
                while told < 3_000:
                    told += len(events.news()[1])
                flooded.result()
                self.assertEqual(events.data["exchanges"]["totals"]["hits"], 3_000)
                self.assertEqual(collector.stop()[0], 0)
                self.assertEqual(events.answer.read(), b"\n")  # raises if the stream was cut
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
                with contextlib.nullcontext() if allowed else self.assertRaises(ConnectionError):
                    collector.ask("POST", "/api/reset", "{}", headers)
            status, headers, _ = collector.ask("GET", "/", headers={"Sec-Fetch-Site": "cross-site"})
            self.assertEqual(status, 200)
            self.assertIn("default-src 'none'", headers["Content-Security-Policy"])

    def test_interface_is_what_its_description_says(self):
        with Collector("--stall", "hit") as collector:
            described = json.loads(collector.ask("GET", "/api/openapi.json")[2])

            def check(schema, value):
                schema = {"allOf": [schema], "components": described["components"]}
                jsonschema.Draft202012Validator(schema).validate(value)

            collector.ask("GET", "/auth/S")
            collector.hold("/hit/S").close()
            while not collector.counts()["hitsUnanswered"]:
                pass
            with Events(collector) as events:
                events.news()
                for name, kind in (("News", "snapshot"), ("State", "state")):
                    check({"$ref": "#/components/schemas/" + name}, events.data[kind])
            for path, methods in described["paths"].items():
                for method, answers in methods.items():
                    for status, body in (("200", "{}"), ("400", "[]")):
                        if path == "/api/events" or status not in answers["responses"]:
                            continue
                        came, _, text = collector.ask(method.upper(), path, body)
                        self.assertEqual(str(came), status, path)
                        content = answers["responses"][status]["content"]
                        check(content["application/json"]["schema"], json.loads(text))

    def test_refuses_what_it_does_not_know_and_changes_nothing(self):
        with Collector("--access", "restricted") as collector:
            before = collector.behave()
            for changes, named in (
                    ({"access": "x", "colour": 1}, "colour"), ({"access": 1}, "access"),
                    ({"authStatus": 99}, "authStatus"), ({"hitStatus": 2**32 + 200}, "hitStatus"),
                    ({"stall": "all"}, "none auth hit both")):
                status, answer = collector.behave(**changes)
                self.assertEqual(status, 400, changes)
                self.assertIn(named, answer["error"])
            for body, status in (("[" * 60_000, 400), (" " * 100_000, 413)):
                self.assertEqual(collector.ask("POST", "/api/behaviour", body)[0], status, body[:9])
            self.assertEqual(collector.behave(), before)

    def test_command_line(self):
        with tempfile.TemporaryDirectory() as directory, \
                Collector("--address", "::1", "--port-file", directory + "/port") as collector:
            body = collector.ask("GET", "/auth/S")[2]
            self.assertEqual(fields(body)["host"], f"http://[::1]:{collector.port}/hit/")
            self.assertEqual(pathlib.Path(directory, "port").read_text(), f"{collector.port}\n")
            for code, flags, text in (
                    (1, ["--port", str(collector.port), "--address", "::1"], "cannot listen"),
                    (1, ["--port", "0", "--port-file", directory + "/no/port"], "cannot write"),
                    (1, ["--port", "0", "--record", directory], "cannot write"),
                    (2, ["--address", "0.0.0.0"], "0.0.0.0"), (2, ["--colour"], "colour"),
                    (2, ["--access", os.fsdecode(b"\xff")], "access must be a text in UTF-8")):
                ended = subprocess.run([COLLECTOR, *flags], capture_output=True, timeout=30)
                self.assertEqual(ended.returncode, code, flags)
                self.assertIn(text, ended.stderr.decode(errors="replace"))
        with Collector("--record", "/dev/full") as collector:
            collector.ask("GET", "/hit/S")
            self.assertEqual(collector.stop()[0], 1)  # the record is not whole


if __name__ == "__main__":
    unittest.main()
