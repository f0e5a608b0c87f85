"""Runs a script in process and network namespaces of its own.

At its end the client stops a backend by what command lines and ports look like, whoever they belong to: it must never
see the processes and ports of the machine. Displays, buses and their numbers cannot collide there either, so scripts
may run side by side.
"""

import os
import signal
import subprocess
import sys
import unittest

MARK = "KESTRUNE_TEST_ISOLATED"
SKIPPED = 77  # as CMake knows it


def main():
    """Stands for `unittest.main()`."""
    run(lambda: unittest.main(verbosity=2))


def run(work):
    """Starts the script anew inside, does the work there, and ends with its status."""
    if os.environ.pop(MARK, None) is None:
        enter()
    if os.getpid() != 1:
        sys.exit(f"{MARK} is set, but this is not the first process of a namespace")
    # A start in the background or under nohup would hand on that these are ignored.
    for number in (signal.SIGHUP, signal.SIGINT, signal.SIGQUIT):
        signal.signal(number, signal.SIG_DFL)
    subprocess.run(["ip", "link", "set", "lo", "up"], check=True)
    # unshare of Ubuntu 22.04 leaves it ignored.
    signal.signal(signal.SIGTERM, signal.SIG_DFL)
    worker = os.fork()
    if worker == 0:
        sys.exit(work())
    # Orphans become children of the first process; one that nobody reaped would never be gone.
    while True:
        pid, status = os.wait()
        if pid == worker:
            # The end of the first process is the end of all others.
            os._exit(0 if status == 0 else 1)


def enter():
    """Skips the script where the machine refuses the namespaces; with KESTRUNE_NO_SKIPS it fails."""
    namespaces = ["--pid", "--net", "--mount", "--ipc", "--fork", "--kill-child", "--mount-proc"]
    for as_root in ([], ["--user", "--map-root-user"]):
        unshare = ["unshare", *as_root, *namespaces, "--"]
        trial = subprocess.run([*unshare, "ip", "link", "set", "lo", "up"], capture_output=True, text=True)
        if trial.returncode == 0:
            os.environ[MARK] = "1"
            os.execvp("unshare", [*unshare, sys.executable, *sys.orig_argv[1:]])
    print(f"[  SKIPPED ] needs namespaces, which this machine refuses: {trial.stderr.strip()}")
    sys.exit("KESTRUNE_NO_SKIPS" in os.environ or SKIPPED)
