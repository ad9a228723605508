"""Compares files 0.ser, 1.ser, ... in a directory, as plistlib sees them, with what 0.txt, ... say
is in them: every object at the first mention, then by its number."""
import pathlib
import plistlib
import sys


def description(data):
    archive = plistlib.loads(data)
    table, seen = archive["$objects"], {}

    def show(value):
        if isinstance(value, bool):
            return "true" if value else "false"
        if not isinstance(value, plistlib.UID):
            return str(value)
        if value.data == 0:
            return "null"
        if value.data in seen:
            return f"#{seen[value.data]}"
        entry = table[value.data]
        name = "" if isinstance(entry, str) else table[entry["$class"].data]["$classname"]
        if name == "NSDate":
            return f"@{entry['NS.time']:.0f}"
        seen[value.data] = len(seen)
        if isinstance(entry, str):
            return f"'{entry.encode().hex()}'"
        if name == "NSMutableDictionary":
            return "{%s}" % ",".join(f"{show(key)}={show(text)}" for key, text in zip(
                entry["NS.keys"], entry["NS.objects"], strict=True))
        return name + "(%s)" % ",".join(
            show(field) for key, field in entry.items() if key != "$class")

    assert table[0] == "$null"
    root = table[archive["$top"]["root"].data]
    if not root["NS.objects"]:  # then all slots are free: of 7 UIDs and 11 other numbers each
        free = (table.count("$null") - 1) // 7
        places = [int.from_bytes(data[at:at + 4], "big")
                  for at in range(int.from_bytes(data[-8:], "big"), len(data) - 32, 4)]
        assert places.count(8) == 1 + 11 * free, "numbers that are not free"
        assert free > 8
    return "".join(show(element) + "\n" for element in root["NS.objects"])


directory = pathlib.Path(sys.argv[1])
for step in range(int(sys.argv[2])):
    found = description((directory / f"{step}.ser").read_bytes())
    expected = (directory / f"{step}.txt").read_text()
    if found != expected:
        for line, (left, right) in enumerate(zip(found.split("\n"), expected.split("\n"))):
            if left != right:
                sys.exit(f"step {step}, element {line}:\n{left}\nshould be\n{right}")
        sys.exit(f"step {step}: another number of elements")
