"""Prints what a keyed archive on standard input holds, as plistlib sees it."""
import plistlib
import sys

archive = plistlib.loads(sys.stdin.buffer.read())
table, seen = archive.pop("$objects"), set()


def show(value):
    if not isinstance(value, plistlib.UID):
        return ascii(value)
    entry = table[value.data]
    if isinstance(entry, str):
        return f"{value.data}:{entry!a}"
    if value.data in seen:
        return f"same {value.data}"
    seen.add(value.data)
    described = table[entry["$class"].data]
    text = f"{value.data}({described['$classname']}<{','.join(described['$classes'])}"
    for key, field in entry.items():
        if key != "$class":
            parts = field if isinstance(field, list) else [field]
            text += f" {key}={','.join(map(show, parts))}"
    return text + ")"


print(archive)
print(show(plistlib.UID(1)))
