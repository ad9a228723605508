"""Compares files 0.ser, 1.ser, ... in a directory, as plistlib sees them, with 0.whole, ... beside
them, which were written at one go: the same values, and the same objects are shared."""
import pathlib
import plistlib
import sys


def content(data):
    archive = plistlib.loads(data)
    table, numbers = archive["$objects"], {}

    def show(value):
        if isinstance(value, plistlib.UID):
            found = table[value.data]
            # Texts, dates and classes have no identity: who writes at one go shares more of them.
            if isinstance(found, dict) and "$class" in found and "NS.time" not in found:
                if value.data in numbers:
                    return numbers[value.data]
                numbers[value.data] = len(numbers)
            return show(found)
        if isinstance(value, dict):
            return {key: show(each) for key, each in value.items()}
        return [show(each) for each in value] if isinstance(value, list) else value

    assert table[0] == "$null"
    root = table[archive["$top"]["root"].data]
    if not root["NS.objects"]:  # then nothing is left but what every archive has
        left = [entry for entry in table if entry not in ("$null", root)]
        assert all("$classname" in entry for entry in left), left
        places = [int.from_bytes(data[at:at + 4], "big")
                  for at in range(int.from_bytes(data[-8:], "big"), len(data) - 32, 4)]
        in_slots = places[len(table) + 2:]
        assert len(in_slots) - in_slots.count(in_slots[0]) < 90, "numbers that are not free"
    return show(root)


directory = pathlib.Path(sys.argv[1])
for step in range(int(sys.argv[2])):
    found, whole = (content((directory / f"{step}.{kind}").read_bytes()) for kind in ("ser", "whole"))
    for index, (left, right) in enumerate(zip(found["NS.objects"], whole["NS.objects"])):
        assert left == right, f"step {step}, element {index}:\n{left}\nshould be\n{right}"
    assert found == whole, f"step {step}: another number of elements"
