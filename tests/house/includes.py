"""Checks every include against the rooms (folders built as one static library) that the build declares. A file
includes only its own room and the rooms that its room links, and a room links no room that it does not include. The
controller, the ports and text/ include no header of the host. No file includes the streams of the C++ library. No
source has conditional compilation by host."""

import os
import pathlib
import re
import sys

ROOT = pathlib.Path(os.environ["KESTRUNE_SOURCE"])
ROOMS_FILE = pathlib.Path(os.environ["KESTRUNE_BUILD"]) / "rooms.txt"

STANDARD = set("""
algorithm array atomic bit charconv chrono cmath compare concepts condition_variable csignal cstddef cstdint cstdio ctime
cstdlib cstring deque exception filesystem functional future initializer_list iterator limits list map memory mutex new
numeric optional random ranges set span stdexcept string string_view system_error thread tuple type_traits
unordered_map unordered_set utility variant vector
""".split())
PURE = {"utf8proc.h", "nlohmann/json.hpp", "nlohmann/json_fwd.hpp"}
STREAMS = {"fstream", "iomanip", "iostream", "istream", "ostream", "sstream"}
PORTABLE = ("text", "ports", "KestruneMenuClient", "adapters/alerts", "adapters/launchd")

INCLUDE = re.compile(r'^\s*#\s*include\s*(["<])([^">]+)[">]')
HOST_CONDITIONAL = re.compile(r"^\s*#\s*(?:if|ifdef|ifndef|elif)\b.*\b_{0,2}(?:linux|APPLE|FreeBSD|unix|WIN32|MACH)\b")


def read_rooms():
    """Returns a dictionary from the folder of each room to the rooms that it links."""
    lines = ROOMS_FILE.read_text(encoding="utf-8").splitlines()
    rooms = {room: set(filter(None, linked.strip().split(";"))) for room, linked in (line.split(":") for line in lines)}
    assert rooms, "the build declares no rooms"
    return rooms


def check_file(path, room, links):
    """Returns the faults of one file, and the rooms that the file includes."""
    faults, included = [], set()
    for number, line in enumerate(path.read_text(encoding="utf-8").splitlines(), 1):
        where = f"{path.relative_to(ROOT)}:{number}"
        if HOST_CONDITIONAL.match(line):
            faults.append(f"{where}: the build picks files, the code picks no hosts")
        match = INCLUDE.match(line)
        if not match:
            continue
        bracket, header = match.groups()
        if bracket == "<":
            if header in STREAMS:
                faults.append(f"{where}: {header} adds 0.4 MB of libstdc++ to the program; see readWholeFile")
            if room.startswith(PORTABLE) and header not in STANDARD | PURE:
                faults.append(f"{where}: {header} is a header of the host")
            continue
        folder = str(pathlib.PurePosixPath(header).parent)
        included.add(folder)
        if folder != room and folder not in links:
            faults.append(f"{where}: {room} does not link {folder}")
    return faults, included


def main():
    rooms = read_rooms()
    faults, checked = [], 0
    for room, links in rooms.items():
        files = sorted(ROOT.glob(f"{room}/*.h")) + sorted(ROOT.glob(f"{room}/*.cpp"))
        included = set()
        for path in files:
            new, folders = check_file(path, room, links)
            faults += new
            included |= folders
            checked += 1
        faults += [f"{room} links {linked} and includes nothing of it" for linked in sorted(links - included)]
    for folder in ("text", "ports", "KestruneMenuClient", "adapters", "dialogs", "host"):
        for path in ROOT.glob(f"{folder}/**/*.cpp"):
            if str(path.parent.relative_to(ROOT)) not in rooms:
                faults.append(f"{path.relative_to(ROOT)}: stands in no room")
    print("\n".join(sorted(faults)) or f"{checked} files in {len(rooms)} rooms are in order")
    sys.exit(1 if faults else 0)


main()
