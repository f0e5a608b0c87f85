"""Keeps host and toolkit headers out of the controller and the ports: they may include the standard library, each other
and small pure libraries only. Host conditionals belong to no source outside a host's folder."""

import os
import pathlib
import re
import sys

ROOT = pathlib.Path(os.environ["KESTRUNE_SOURCE"])

STANDARD = set("""
algorithm array atomic bit charconv chrono cmath compare concepts condition_variable csignal cstddef cstdint cstdio ctime
cstdlib cstring deque exception filesystem functional future initializer_list iterator limits list map memory mutex new
numeric optional random ranges set span stdexcept string string_view system_error thread tuple type_traits
unordered_map unordered_set utility variant vector
""".split())
PURE = {"utf8proc.h", "nlohmann/json.hpp", "nlohmann/json_fwd.hpp"}

INCLUDE = re.compile(r'^\s*#\s*include\s*(["<])([^">]+)[">]')
HOST_CONDITIONAL = re.compile(r"^\s*#\s*(?:if|ifdef|ifndef|elif)\b.*\b_{0,2}(?:linux|APPLE|FreeBSD|unix|WIN32|MACH)\b")


def allowed(bracket, header):
    if bracket == "<":
        return header in STANDARD or header in PURE
    return header.startswith("KestruneMenuClient/") or re.fullmatch(r"platform/\w+\.h", header)


def main():
    closed = sorted(ROOT.glob("KestruneMenuClient/**/*.*")) + sorted(ROOT.glob("platform/*.h"))
    everywhere = closed + [path for pattern in ("platform/**/*.h", "platform/**/*.cpp", "dialogs/*")
                           for path in sorted(ROOT.glob(pattern))]
    faults = []
    checked = 0
    for path in closed:
        for number, line in enumerate(path.read_text(encoding="utf-8").splitlines(), 1):
            match = INCLUDE.match(line)
            if not match:
                continue
            checked += 1
            if not allowed(*match.groups()):
                faults.append(f"{path.relative_to(ROOT)}:{number}: must not include {match.group(2)}")
    for path in set(everywhere):
        for number, line in enumerate(path.read_text(encoding="utf-8").splitlines(), 1):
            if HOST_CONDITIONAL.match(line):
                faults.append(f"{path.relative_to(ROOT)}:{number}: the build picks files, the code picks no hosts")
    print("\n".join(sorted(faults)) or f"{checked} includes in {len(closed)} files are in order")
    if faults or checked == 0:
        sys.exit(1)


main()
