"""Compares files 0.ser, 1.ser, ... in a directory, as plistlib sees them, with what 0.txt, ... say
is in them, in the words of RequestsWalkTest.cpp."""
import pathlib
import plistlib
import sys


def description(data):
    archive = plistlib.loads(data)
    table, seen = archive["$objects"], {0: 0}

    def at(uid):
        return table[uid.data] if uid.data else None

    def text(uid):
        return at(uid) if uid.data else "(null)"

    def show(uid):
        request = at(uid)
        words = [seen.setdefault(uid.data, len(seen))]
        if at(request["$class"])["$classname"] == "orbiqClearCache":
            return f"{words[0]} marker\n"
        field = {key.rpartition("_")[2]: value for key, value in request.items()}
        words += [seen.setdefault(field[key].data, len(seen))
                  for key in ("parameters", "taggerID", "auth")]
        auth, host = at(field["auth"]), "(null)"
        if auth:
            shared = auth["orbiqAuth_currentAccess"], auth["orbiqAuth_currentSession"]
            words += [seen.setdefault(uid.data, len(seen)) for uid in shared]
            access, session = map(at, shared)
            host = text(access["orbiqAccess_host"])
            words += [text(session["orbiqSesion_cmsVI"]),
                      int(not access["orbiqAccess_firstHitSuccessfullySent"])]
        dates = [f"{at(field[key])['NS.time'] if at(field[key]) else 0:.0f}"
                 for key in ("lastFail", "creationDate")]
        parameters = "(null)"
        if mapping := at(field["parameters"]):
            pairs = zip(mapping["NS.keys"], mapping["NS.objects"], strict=True)
            lines = (f"    {text(key)} = {text(value)};\n" for key, value in pairs)
            parameters = "{\n%s}" % "".join(lines)
        words += [at(field["taggerID"])["orbiqTaggerID_partialID"], field["numberOfFails"],
                  *dates, f'"serial {text(field["serial"])} - request type '
                  f'streaming - hote {host} - parameters {parameters}"\n']
        return " ".join(map(str, words))

    assert table[0] == "$null"
    root = table[archive["$top"]["root"].data]
    if not root["NS.objects"]:  # then nothing is left but what every archive has
        left = [entry for entry in table if entry not in ("$null", root)]
        assert all("$classname" in entry for entry in left), left
        places = [int.from_bytes(data[at:at + 4], "big")
                  for at in range(int.from_bytes(data[-8:], "big"), len(data) - 32, 4)]
        in_slots = places[len(table) + 2:]
        assert len(in_slots) - in_slots.count(in_slots[0]) < 90, "numbers that are not free"
    return "".join(map(show, root["NS.objects"]))


directory = pathlib.Path(sys.argv[1])
for step in range(int(sys.argv[2])):
    found = description((directory / f"{step}.ser").read_bytes())
    expected = (directory / f"{step}.txt").read_text()
    if found != expected:
        for line, (left, right) in enumerate(zip(found.split("\n"), expected.split("\n"))):
            if left != right:
                sys.exit(f"step {step}, element {line}:\n{left}\nshould be\n{right}")
        sys.exit(f"step {step}: another number of elements")
