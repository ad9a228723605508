"""Makes archives as other writers make them, or would like to. As a program it writes one for each line of
standard input, a Python expression over the functions below, and before each its length in 20 characters.
"""
import datetime
import plistlib
import struct
import sys
from plistlib import UID


def binary(tree):
    return plistlib.dumps(tree, fmt=plistlib.FMT_BINARY, sort_keys=False)


def cls(name):
    return {"$classname": name, "$classes": [name, "NSObject"]}


def item(*more, root="NSArray", elements=(UID(2),), **fields):
    """An archive of one item with these fields; the additional objects start at UID 8."""
    objects = ["$null", {"NS.objects": list(elements), "$class": UID(3)},
               {**fields, "$class": UID(4)}, cls(root), cls("Item"), cls("NSDictionary"),
               cls("NSDate"), cls("NSMutableString"), *more]
    return {"$version": 100000, "$archiver": "NSKeyedArchiver", "$top": {"root": UID(1)},
            "$objects": objects}


def own_date(seconds):
    """One of the property list's own, not an archived one."""
    return datetime.datetime(2001, 1, 1) + datetime.timedelta(seconds=seconds)


def mapping(keys, values):
    return {"NS.keys": keys, "NS.objects": values, "$class": UID(5)}


def layout(data):
    """Where the objects stand, by their numbers, the start of the offset table, and its width."""
    width, _, count, _, table = struct.unpack(">6xBBQQQ", data[-32:])
    return [int.from_bytes(data[table + i * width:table + (i + 1) * width], "big")
            for i in range(count)], table, width


def overlaid(whole):
    """Every text of three characters becomes the one long text."""
    data = binary(whole)
    offsets, table, width = layout(data)
    long = next(offset for offset in offsets if data[offset:offset + 2] == b"\x5F\x12")
    changed = [long if data[offset] == 0x53 else offset for offset in offsets]
    return data[:table] + b"".join(offset.to_bytes(width, "big") for offset in changed) + data[-32:]


for line in sys.stdin if __name__ == "__main__" else ():
    made = eval(line)
    made = binary(made) if isinstance(made, dict) else made
    sys.stdout.buffer.write(b"%20d" % len(made) + made)
