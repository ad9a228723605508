#!/usr/bin/env python3
"""Compares the page of the requests file with what the library writes.

Usage: requests_file.py PROGRAM PAGE [--write]. PROGRAM FILE writes the queue that the page shows.
The page's block "dump" must be that file, and its block "content" what another reader finds in the
file, word for word; `--write` makes them so. Prints what differs and exits 1 if anything does.
"""

import collections
import difflib
import pathlib
import plistlib
import re
import struct
import subprocess
import sys
import tempfile

BLOCK = re.compile(r"(^<!-- (dump|content) -->\n```text\n)(.*?)(?=^```$)",
                   re.MULTILINE | re.DOTALL)
LINE = re.compile(r"([0-9a-f]{4})  ((?:[0-9a-f]{2} )*[0-9a-f]{2})(?: × (\d+))?(?:  .*)?")
WIDTH = 16  # bytes on a line


class Listing:
    """Takes a binary property list apart, from its first byte to its last."""

    def __init__(self, data):
        self.data, self.at, self.lines = data, 0, []
        self.offset_size, self.ref_size = data[-26], data[-25]
        self.count, self.top, self.table = (self.number(len(data) - 24 + 8 * i, 8)
                                            for i in range(3))

    def number(self, at, size):
        return int.from_bytes(self.data[at:at + size], "big")

    def take(self, size, text):
        part = self.data[self.at:self.at + size]
        for i in range(0, size, WIDTH):
            shown = part[i:i + WIDTH].hex(" ")
            self.lines.append(f"{self.at + i:04x}  {shown:{3 * WIDTH}} {text}".rstrip())
            text = ""
        self.at += size

    def refs(self, count):
        shown = [str(self.number(self.at + i * self.ref_size, self.ref_size)) for i in range(count)]
        return ", ".join(shown if count <= WIDTH else shown[:WIDTH] + ["…"])

    def object(self, number):
        kind, info = divmod(self.data[self.at], 16)
        size, head = info, 1
        if kind in (5, 6, 10, 13) and info == 15:  # the count follows, as an integer
            width = 1 << (self.data[self.at + 1] & 15)
            size, head = self.number(self.at + 2, width), 2 + width
        start, name = self.at + head, f"{number}:"
        if kind == 0:
            self.take(1, f"{name} {'true' if info == 9 else 'false'}")
        elif kind == 1:
            self.take(1 + (1 << info), f"{name} integer {self.number(start, 1 << info)}")
        elif kind == 2:
            value = struct.unpack(">d", self.data[start:start + 8])[0]
            self.take(9, f"{name} real {value!r}")
        elif kind == 5:
            self.take(head + size, f'{name} text "{self.data[start:start + size].decode("ascii")}"')
        elif kind == 10:
            self.take(head, f"{name} array of {size}")
            self.take(size * self.ref_size, f"    {self.refs(size)}")
        elif kind == 13:
            self.take(head, f"{name} dictionary of {size}")
            self.take(size * self.ref_size, f"    keys {self.refs(size)}")
            self.take(size * self.ref_size, f"    values {self.refs(size)}")
        else:
            raise ValueError(f"object {number} is of a kind that the page does not show")

    def place(self, number):
        return self.number(self.table + number * self.offset_size, self.offset_size)

    def uids(self, first):
        """UIDs that stand in a row and have numbers in a row."""
        size, last = 1 + self.ref_size, first
        value = self.number(self.at + 1, self.ref_size)
        while (last + 1 < self.count and self.place(last + 1) == self.place(last) + size
               and self.data[self.place(last + 1)] >> 4 == 8):
            last += 1
        count = last + 1 - first
        self.take(count * size, f"{first}: UID {value}" if count == 1 else
                  f"{first} to {last}: UIDs {value} to {value + count - 1}")

    def zeros(self, end, text):
        if any(self.data[self.at:end]):
            raise ValueError(f"something stands at {self.at:04x} that is no object")
        if end > self.at:
            self.lines.append(f"{self.at:04x}  {f'00 × {end - self.at}':{3 * WIDTH}} {text}")
            self.at = end

    def places(self):
        # Most numbers are free, and lead to the first text of all, which has a number as well.
        (free, _), = collections.Counter(map(self.place, range(self.count))).most_common(1)
        null, first = [self.place(number) for number in range(self.count)].index(free), 0
        while first < self.count:
            last, is_free = first, first > null and self.place(first) == free
            while (last + 1 < self.count and (self.place(last + 1) == free) == is_free
                   and (is_free or last + 1 < first + WIDTH // self.offset_size)):
                last += 1
            text = f"place{'s of objects' if last > first else ' of object'} {first}"
            text += f" to {last}" if last > first else ""
            count, first = last + 1 - first, last + 1
            if not is_free:
                self.take(count * self.offset_size, text)
                continue
            shown = f"{free.to_bytes(self.offset_size, 'big').hex(' ')} × {count}"
            self.lines.append(f"{self.at:04x}  {shown:{3 * WIDTH}} {text}: free")
            self.at += count * self.offset_size

    def text(self):
        self.take(8, "the format, and its version 00")
        numbers = {}
        for number in range(self.count):
            numbers.setdefault(self.place(number), number)
        for place, number in sorted(numbers.items()):
            if place < self.at:
                continue  # the second of several UIDs
            self.zeros(place, "room")
            if self.data[place] >> 4 == 8:
                self.uids(number)
            else:
                self.object(number)
        self.zeros(self.table, "room, and padding")
        self.places()
        for size, text in ((6, "unused"), (1, "bytes of each place in the table"),
                           (1, "bytes of each reference to an object"),
                           (8, f"{self.count} objects"), (8, f"the top object is {self.top}"),
                           (8, f"the table begins at {self.table:04x}")):
            self.take(size, text)
        return "".join(f"{line}\n" for line in self.lines)


def content(data):
    """What the archive holds, as plistlib sees it."""
    archive = plistlib.loads(data)
    table = archive["$objects"]

    def show(value, indent):
        entry = table[value.data] if isinstance(value, plistlib.UID) else value
        if isinstance(entry, str):
            return "null" if entry == "$null" else f'"{entry}"'
        if not isinstance(entry, dict):
            return str(entry).lower()
        text = table[entry["$class"].data]["$classname"]
        fields = [(key, field) for key, field in entry.items() if key != "$class"]
        if "NS.keys" in entry:
            fields = [(show(key, ""), field)
                      for key, field in zip(entry["NS.keys"], entry["NS.objects"])]
        elif "NS.objects" in entry:
            fields = list(enumerate(entry["NS.objects"]))
        return text + "".join(f"\n{indent}{key}: {show(field, indent + '    ')}"
                              for key, field in fields)

    return show(archive["$top"]["root"], "    ") + "\n"


def decoded(dump):
    """The bytes of the page's own dump."""
    data = b""
    for line in dump.splitlines():
        read = LINE.fullmatch(line.rstrip())
        if not read or int(read[1], 16) != len(data):
            raise ValueError(f"the page's dump breaks at: {line}")
        data += bytes.fromhex(read[2]) * int(read[3] or 1)
    return data


def main():
    program, path = sys.argv[1], pathlib.Path(sys.argv[2])
    with tempfile.TemporaryDirectory() as directory:
        file = pathlib.Path(directory) / "requests.ser"
        subprocess.run([program, file], check=True)
        data = file.read_bytes()
    wanted = {"dump": Listing(data).text(), "content": content(data)}
    page = path.read_text(encoding="utf-8")
    if sys.argv[3:] == ["--write"]:
        page = BLOCK.sub(lambda found: found[1] + wanted[found[2]], page)
        path.write_text(page, encoding="utf-8")
    shown = {name: block for _, name, block in BLOCK.findall(page)}
    if shown.keys() != wanted.keys():
        sys.exit(f"{path} does not show the file's dump and content")
    faults = [line for name, block in shown.items()
              for line in difflib.unified_diff(block.splitlines(), wanted[name].splitlines(),
                                               f"{name} on {path}", "the library", lineterm="")]
    # Apart from how this program lists them, these are the bytes.
    try:
        if decoded(shown["dump"]) != data:
            faults.append("The bytes on the page are not those that the library writes.")
    except ValueError as error:
        faults.append(str(error))
    print("\n".join(faults), end="\n" if faults else "")
    sys.exit(1 if faults else 0)


if __name__ == "__main__":
    main()
