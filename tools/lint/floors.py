#!/usr/bin/env python3
"""Checks every #include of the project against the order of its rooms.

Usage: floors.py [PROJECT]. Prints one line per fault and exits 1 if there is any.
"""

import pathlib
import re
import sys

# From the ground up. A file includes files of its own room and of lower floors; a file belongs to
# the room with the longest matching path. Where neighbours on one floor build on each other, the
# floor has steps of its own: the others of floor 2 log through the logger, an authorization is made
# of a session and an access, a request carries an identity and an authorization.
FLOORS = {
    "orbiq/services/platform/base": 1,
    "orbiq/services/platform/text": 1.1,
    "orbiq/services/platform/time": 1.1,
    "orbiq/services/platform/threads": 1.2,
    "orbiq/services/platform/files": 1.3,
    "orbiq/services/platform/log": 1.4,
    "orbiq/services/platform/loop": 1.5,
    "orbiq/services/platform/archive": 1.5,
    "orbiq/services/platform/keychain": 1.5,
    "orbiq/services/platform/http": 1.5,
    "orbiq/services/platform/network": 1.6,
    "orbiq/services/platform/host": 1.7,
    "orbiq/services/orbiqLogger": 2,
    "orbiq/services/orbiqReachability": 2.1,
    "orbiq/services/orbiqKWDXUUIDHandler": 2.1,
    "orbiq/private/orbiqTimer": 2.1,
    "orbiq/private/orbiqAgent/orbiqTaggerID": 3,
    "orbiq/private/orbiqAgent/orbiqTaggerIdentifier": 3,
    "orbiq/private/orbiqAuthManager/orbiqSession": 3,
    "orbiq/private/orbiqAuthManager/orbiqAccess": 3,
    "orbiq/private/orbiqAuthManager/orbiqAuth": 3.1,
    "orbiq/private/orbiqRequest": 3.2,
    "orbiq/private/orbiqAgent/DeviceContext": 4,
    "orbiq/public/orbiqTagger": 5,
    "orbiq/private/orbiqAuthManager": 5,
    "orbiq/private/orbiqAgent": 6,
    "orbiq/public/orbiqAudienceTagger": 7,
    "orbiq/secretservice": 2.1,
    "orbiq": 7.1,  # the umbrella header and the version
    "tools": 8,
    "examples": 8,
    "tests/support": 8,  # shared by the three that follow
    "bench/fleet": 8.05,  # simulated, and tested
    "bench": 8.1,
    "fuzz": 8.1,
    "tests": 8.1,
}

# The agent's registry keeps audience taggers; its header only declares their class.
EXCEPTION = ("orbiq/private/orbiqAgent/orbiqAgentRegistry.cpp",
             "orbiq/public/orbiqAudienceTagger/orbiqAudienceTagger.h")

UMBRELLA = "orbiq/orbiq.h"
PLATFORM = "orbiq/services/platform/host/Platform"
LOCKS = "orbiq/services/platform/threads/Mutex.h"

INCLUDE = re.compile(r'^\s*#\s*include\s*(?:"([^"]+)"|<([^>]+)>)', re.MULTILINE)
LOCK_NAME = re.compile(r"\bstd::(mutex|shared_mutex|recursive_mutex|condition_variable)\b")
USING = re.compile(r"^using [^=;]*;", re.MULTILINE)
COMMENT = re.compile(r"//[^\n]*|/\*.*?\*/", re.DOTALL)


def room_of(path):
    while path and path not in FLOORS:
        path = path.rpartition("/")[0]
    return path


def sources(project):
    tops = sorted({room.partition("/")[0] for room in FLOORS})
    return {path.relative_to(project).as_posix(): path.read_text(encoding="utf-8")
            for top in tops for path in sorted((project / top).rglob("*"))
            if path.suffix in (".h", ".cpp")}


def floor_faults(name, included):
    room, other = room_of(name), room_of(included)
    if other == room or (name, included) == EXCEPTION:
        return
    if not other:
        yield f"{name}: {included} belongs to no room of the table"
    elif FLOORS[other] >= FLOORS[room]:
        yield (f"{name}: {included} is on floor {FLOORS[other]}, "
               f"not below floor {FLOORS[room]} of {room}")


def circle(own_includes):
    """The files of one circle of includes, or nothing."""
    done, path = set(), []

    def walk(name):
        if name in path:
            return path[path.index(name):] + [name]
        if name in done:
            return []
        path.append(name)
        for included in own_includes.get(name, ()):
            found = walk(included)
            if found:
                return found
        path.pop()
        done.add(name)
        return []

    return next(filter(None, map(walk, sorted(own_includes))), [])


def reach(own_includes, start):
    seen, waiting = set(), [start]
    while waiting:
        name = waiting.pop()
        if name not in seen:
            seen.add(name)
            waiting.extend(own_includes.get(name, ()))
    return seen


def faults(project):
    texts = sources(project)
    own_includes, other_includes = {}, {}
    for name, text in texts.items():
        found = INCLUDE.findall(text)
        own_includes[name] = [own or other for own, other in found if own or other in texts]
        other_includes[name] = [other for _, other in found if other and other not in texts]

    for name in texts:
        for included in own_includes[name]:
            if included not in texts:
                yield f"{name}: {included} is no file of the project; write it from the root"
            else:
                yield from floor_faults(name, included)
                if name.startswith("examples/") and included.startswith("orbiq/"):
                    if included != UMBRELLA:
                        yield f"{name}: an example includes {UMBRELLA} and nothing behind it"
        if (f"{PLATFORM}.h" in own_includes[name] and name != f"{PLATFORM}.cpp"
                and name.startswith("orbiq/services/platform/")):
            yield f"{name}: an adapter stands alone and does not include Platform.h"
        if name.startswith(("orbiq/", "tools/")) and name != LOCKS:
            for lock in LOCK_NAME.findall(COMMENT.sub("", texts[name])):
                yield f"{name}: std::{lock} is for {LOCKS} alone"

        if name.endswith(".h"):
            for using in USING.findall(texts[name]):
                yield f"{name}: {using} is there for whoever includes it"

    found = circle(own_includes)
    if found:
        yield "a circle of includes: " + " -> ".join(found)

    for name in sorted(reach(own_includes, UMBRELLA)):
        for included in other_includes.get(name, ()):
            # Headers of the standard library stand in no directory, those of the system in these.
            if "/" in included and not included.startswith("sys/"):
                yield f"{name}: <{included}> would reach applications through {UMBRELLA}"


def main():
    project = pathlib.Path(sys.argv[1] if len(sys.argv) > 1 else ".")
    if not (project / UMBRELLA).is_file():
        sys.exit(f"floors: {project} has no {UMBRELLA}")
    found = list(faults(project))
    print("\n".join(found), end="\n" if found else "")
    sys.exit(1 if found else 0)


if __name__ == "__main__":
    main()
