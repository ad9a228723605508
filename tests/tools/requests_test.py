"""Drives the real inspector, with plistlib as writer and judge of what it reads.

Its arguments are the paths of orbiq-requests, of the example orbiq-first-hit and of what writes two
requests into a file.
"""

import concurrent.futures
import ctypes
import json
import os
import pathlib
import subprocess
import sys
import tempfile
import threading
import unittest
from plistlib import UID

from write_archives import binary, cls, layout

WRITER = sys.argv.pop(3)
FIRST_HIT = sys.argv.pop(2)
INSPECTOR = sys.argv.pop(1)


def environment(**more):
    kept = {name: value for name, value in os.environ.items()
            if not name.startswith("ORBIQ_") and name != "NO_COLOR"}
    return kept | {"TZ": "UTC"} | more


def archive(*objects, **changes):
    tree = {"$version": 100000, "$archiver": "NSKeyedArchiver", "$top": {"root": UID(1)},
            "$objects": ["$null", *objects]}
    return tree | {"$" + key: value for key, value in changes.items()}


def foreign(elements=(UID(2), UID(3)), **fields):
    """As another archiver writes it: boxed texts, immutable containers, a class of its own."""
    return archive(
        {"NS.objects": list(elements), "$class": UID(4)},
        {"orbiqRequest_requestType": 1, "orbiqRequest_sendingMode": 1,
         "orbiqRequest_serial": UID(10), "orbiqRequest_parameters": UID(12),
         "orbiqRequest_creationDate": UID(14), "orbiqRequest_auth": UID(16),
         "orbiqRequest__taggerID": UID(20), "orbiqRequest_numberOfFails": 3,
         "orbiqRequest_lastFail": UID(0), "orbiqRequest_status": 0,
         "orbiqRequest__shouldRenewSession": False, "$class": UID(5), **fields},
        {"$class": UID(6)},
        cls("NSArray"), cls("orbiqRequest"), cls("orbiqClearCache"), cls("NSMutableString"),
        cls("NSDictionary"), cls("NSDate"),                                      # 7 to 9
        {"NS.string": "S\x1b[2J\u202e", "$class": UID(7)}, "https://h/" + "x" * 60,
        {"NS.keys": [UID(13), UID(11)], "NS.objects": [UID(10), UID(20)], "$class": UID(8)},
        "kéy", {"NS.time": 700000000.5, "$class": UID(9)}, cls("Elsewhere"),     # 13 to 15
        {"orbiqAuth_currentAccess": UID(17), "orbiqAuth_currentSession": UID(0),
         "orbiqAuth_defaultValues": False, "$class": UID(18)},
        {"orbiqAccess_accessMode": 1, "orbiqAccess_serial": UID(0), "orbiqAccess_host": UID(11),
         "orbiqAccess_baseURL": UID(13), "orbiqAccess_firstHitSuccessfullySent": True,
         "$class": UID(19)},
        cls("orbiqAuth"), cls("orbiqAccess"), {"NS.data": b"\x00\xff", "$class": UID(15)})


def patched(data, offset, replacement):
    return data[:offset] + replacement + data[offset + len(replacement):]


def exchange(one, other):
    if ctypes.CDLL(None).renameat2(-100, bytes(one), -100, bytes(other), 2) != 0:
        raise OSError("the files cannot change their names")


class Directory(tempfile.TemporaryDirectory):
    def __enter__(self):
        return pathlib.Path(super().__enter__())


def inspect(*arguments, **more):
    ended = subprocess.run([INSPECTOR, *map(str, arguments)], capture_output=True, timeout=60,
                           env=environment(**more))
    return ended.returncode, ended.stdout.decode(), ended.stderr.decode()


def shown(data, *flags):
    with Directory() as directory:
        file = directory / "requests.ser"
        file.write_bytes(data)
        return inspect(file, *flags)


def read(data):
    code, text, _ = shown(data, "--json")
    return code, json.loads(text)


class Following:
    def __init__(self, *arguments):
        self.process = subprocess.Popen([INSPECTOR, "--follow", "--json", *map(str, arguments)],
                                        stdout=subprocess.PIPE, text=True, env=environment())

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.kill()
        self.process.wait()
        self.process.stdout.close()

    def until(self, holds):
        for line in self.process.stdout:
            report = json.loads(line)
            if holds(report):
                return report
        raise AssertionError("it ended")


class RequestsTest(unittest.TestCase):
    def test_shows_what_another_archiver_wrote(self):
        data = binary(foreign())
        code, text, _ = shown(data)
        self.assertEqual(code, 0, text)
        heading, columns, first, second, note = text.splitlines()
        self.assertRegex(heading, rf"2 requests, {len(data)} bytes, saved .*, not in use$")
        self.assertEqual(columns.split(), ["#", "KIND", "SERIAL", "URL", "CREATED", "ACCESS",
                                           "SESSION", "PARAMS", "FAILS"])
        self.assertRegex(first, r"^1  streaming +S\\x1B\[2J\\u\{202E\}  https://h/x{37}…  "
                                r"2023-03-08 20:26:40 \(\d+ days ago\)  restricted, used  -  ")
        self.assertEqual(first.split()[-2:], ["2", "3"])
        self.assertTrue(second.startswith("2  clear-cache marker  - "))
        self.assertEqual(note, "Note: request 1: orbiqRequest__taggerID reads as none, since it is "
                               "of class Elsewhere")
        self.assertIn("x" * 60, shown(data, "--wide")[1])

        code, report = read(data)
        request = report["requests"][0]
        self.assertEqual((code, report["isLoadable"], report["faults"]), (0, True, []))
        self.assertEqual(request["parameters"], {
            "kéy": "S\x1b[2J\u202e", "https://h/" + "x" * 60: {"unread": "of class Elsewhere"}})
        self.assertEqual((request["createdAt"], request["access"]["firstHitSent"]),
                         ("2023-03-08T20:26:40.500Z", True))
        objects = report["archive"]["objects"]
        self.assertEqual((len(objects), objects[13]["value"], objects[20]["keys"]),
                         (21, "kéy", {"NS.data": {"data": "00ff"}, "$class": {"uid": 15}}))

    def test_says_what_is_damaged_and_where(self):
        whole = binary(foreign())
        offsets, table, width = layout(whole)
        long = offsets.index(whole.index(b"https://h/") - 3)
        uid = next(n for n, at in enumerate(offsets) if whole[at:at + 2] == b"\x80\x10")
        size, at = len(whole), offsets[long]
        for data, offset, number, expected, loads in (
                (patched(whole, 0, b"X"), 0, None, "bplist00", False),
                (whole[:20], 20, None, "a trailer", False),
                (b"", 0, None, "bplist00", False),
                (patched(whole, size - 17, b"\x01"), size - 24, None, "number of objects", False),
                (patched(whole, table + long * width, b"\xff" * width), table + long * width, long,
                 "an offset among the objects", True),
                (patched(whole, at, b"\xC0"), at, long, "kind of object", True),
                (patched(whole, at + 1, b"\x11"), at + 4, long, "contents that fit", True),
                (patched(whole, offsets[uid] + 1, b"\x7f"), offsets[uid], uid, "a UID below 21",
                 True)):
            with self.subTest(expected=expected):
                code, report = read(data)
                self.assertEqual((code, report["isLoadable"]), (1, loads), report["faults"])
                fault = next(fault for fault in report["faults"] if expected in fault["expected"])
                self.assertEqual((fault["offset"], fault["object"]), (offset, number))

    def test_says_what_is_no_requests_file(self):
        for tree, expected in (
                (foreign() | {"$archiver": "Other"}, '"NSKeyedArchiver"'),
                (foreign() | {"$objects": "none"}, "an array under the key $objects"),
                (foreign() | {"$top": {"root": UID(2)}}, "it is of class orbiqRequest"),
                (foreign(elements=[UID(3), UID(20)]), "as element 2; it is of class Elsewhere"),
                (foreign(elements=[1]), "a UID as element 1"),
                (foreign(**{"$class": UID(11)}), "a $class that leads to")):
            code, text, _ = shown(binary(tree))
            self.assertEqual(code, 1, tree)
            self.assertIn(expected, text)
            self.assertIn("would load nothing", text)

    def test_shows_what_is_left_of_a_damaged_file(self):
        whole = binary(foreign())
        for left in (layout(whole)[1], len(whole) - 1):  # without the offset table; with a part of it
            report = read(whole[:left])[1]
            request = report["requests"][0]
            self.assertEqual((request["serial"], request["access"]["mode"], len(report["faults"])),
                             ("S\x1b[2J\u202e", 1, 1))
        self.assertEqual(len(read(patched(whole, 0, b"X"))[1]["requests"]), 2)
        report = read(binary(foreign() | {"$top": {}}))[1]
        self.assertEqual([request["kind"] for request in report["requests"]], ["streaming"])
        with Directory() as directory:
            subprocess.run([WRITER, directory / "requests.ser"], check=True)
            ours = (directory / "requests.ser").read_bytes()
        sound = read(ours)[1]["requests"]
        for left in (len(ours) - 1, len(ours) // 3):
            self.assertEqual(read(ours[:left])[1]["requests"], sound)
        piped = subprocess.run([INSPECTOR, "-"], input=ours, capture_output=True, env=environment())
        self.assertTrue(piped.stdout.startswith(b"-: 2 requests, 8192 bytes, whether it is in use"))

    def test_few_bytes_do_not_make_much_of_themselves(self):
        pairs = {"NS.keys": [UID(7)] * 20_000, "NS.objects": [UID(7)] * 20_000, "$class": UID(6)}
        data = binary(archive({"NS.objects": [UID(2)] * 20_000, "$class": UID(4)},
                              {"orbiqRequest_parameters": UID(5), "$class": UID(3)},
                              cls("orbiqRequest"), cls("NSArray"), pairs, cls("NSDictionary"),
                              "key"))
        code, text, _ = shown(data, "--json")
        self.assertEqual(code, 1)
        self.assertLess(len(text), 60_000_000)
        self.assertIn("in proportion to its size", text)

    def test_follows_an_application(self):
        with Directory() as directory:
            (directory / "orbiqCache").mkdir(mode=0o700)
            place = {"ORBIQ_LIBRARY_DIRECTORY": str(directory)}
            with Following("--library-directory", directory) as following:
                self.assertIn("No such file", following.until(lambda _: True)["failure"])
                application = subprocess.Popen(
                    [FIRST_HIT], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                    env=environment(**place, ORBIQ_AUTHORIZATION_SERVER="http://127.0.0.1:9/"))
                report = following.until(lambda report: report.get("requests"))
                application.kill()
                application.wait()
                self.assertEqual((report["isLoadable"], report["isInUse"], report["process"],
                                  [each["serial"] for each in report["requests"]]),
                                 (True, True, application.pid, ["ABC"]))
                following.until(lambda report: report.get("isInUse") is False)
            # Found in the same place by the environment, and by the name of the application.
            for flags in [], ["--bundle-identifier", "x"]:
                self.assertEqual(inspect(*flags, **place)[0], 0)

    def test_follows_a_file_however_it_is_replaced(self):
        with Directory() as directory:
            file, spare = directory / "cache" / "requests.ser", directory / "spare"
            file.parent.mkdir()
            file.write_bytes(binary(foreign()))
            with Following(file) as following:
                following.until(lambda report: len(report["requests"]) == 2)
                spare.write_bytes(binary(foreign(elements=[UID(3)])))
                spare.rename(file)
                following.until(lambda report: len(report["requests"]) == 1)
                spare.write_bytes(binary(foreign(elements=[])))
                exchange(spare, file)
                following.until(lambda report: report["requests"] == [])
                file.write_bytes(b"torn")
                following.until(lambda report: report["faults"])
                file.unlink()
                following.until(lambda report: "failure" in report)
                file.parent.rmdir()
                self.assertEqual(following.process.wait(timeout=60), 0)
            with Following(spare) as following:  # ends with its reader, though nothing changes
                following.until(lambda _: True)
                following.process.stdout.close()
                self.assertEqual(following.process.wait(timeout=60), 0)

    def test_reads_no_mixture_while_the_file_is_rewritten(self):
        long, numbers = "0" * 2_000_000, list(range(1_000))  # no object starts with a zero digit
        versions = []
        for more in ([long, *numbers], [*numbers, long]):
            tree = foreign()
            tree["$objects"] += more
            versions.append(binary(tree))
        with Directory() as directory:
            file, spare = directory / "requests.ser", directory / "requests.ser.new"
            file.write_bytes(versions[0])
            spare.write_bytes(versions[1])
            is_done = threading.Event()

            def rewrite():  # as an application does it: into the spare, then both change their names
                while not is_done.is_set():
                    versions.reverse()
                    for _ in versions:  # both files get the one version before the other
                        with open(spare, "r+b", buffering=0) as written:
                            for at in range(0, len(versions[0]), 65536):
                                written.write(versions[0][at:at + 65536])
                        exchange(spare, file)

            with concurrent.futures.ThreadPoolExecutor() as pool:
                rewriting = pool.submit(rewrite)
                try:
                    outcomes = {(code, json.loads(text)["isSettled"]) for code, text, _ in (
                        inspect(file, "--json") for _ in range(30))}
                finally:
                    is_done.set()
                rewriting.result()
            # It may well say that the file does not stand still.
            self.assertLessEqual(outcomes, {(0, True), (3, False)})
            self.assertEqual(inspect(file)[0], 0)

    def test_exit_codes(self):
        for arguments, code, text in (
                ([], 2, "ORBIQ_LIBRARY_DIRECTORY"), (["--no"], 2, "--no"),
                (["x", "--library-directory", "y"], 2, "excludes"),
                (["--bundle-identifier", ".."], 2, "bundle identifier"),
                (["--bundle-identifier", "x/y"], 2, "bundle identifier"),
                (["/none"], 3, "No such file"), (["/tmp"], 3, "directory"),
                (["/dev/null"], 3, "Invalid"), (["--follow", "/none/x"], 3, "/none/")):
            found, _, errors = inspect(*arguments)
            self.assertEqual(found, code, arguments)
            self.assertIn(text, errors)


if __name__ == "__main__":
    unittest.main()
