"""Runs a script in process and network namespaces of its own.

When the client ends, it stops processes that it finds by their command lines and ports. In the namespaces it cannot
find processes of the machine. Scripts can run at the same time, because their displays and buses cannot collide.
"""

import os
import signal
import subprocess
import sys
import unittest

MARK = "KESTRUNE_TEST_ISOLATED"
SKIPPED = 77  # the exit status that CMake counts as skipped
# Arguments of ip(8): these commands add a network cable with a default route.
CABLE = ("link add cable type veth peer name wall", "link set wall up", "link set cable up",
         "address add 192.0.2.2/24 dev cable", "route add default via 192.0.2.1")


def main():
    """Replaces `unittest.main()`."""
    run(lambda: unittest.main(verbosity=2))


def run(work):
    """Starts the script again in the namespaces, runs `work` there, and exits with the status of `work`."""
    if os.environ.pop(MARK, None) is None:
        enter()
    if os.getpid() != 1:
        sys.exit(f"{MARK} is set, but this is not the first process of a namespace")
    # Restore the default actions. If the script was started by nohup or in the background of a shell, these signals
    # are ignored in it, and would be ignored in the programs under test.
    for number in (signal.SIGHUP, signal.SIGINT, signal.SIGQUIT):
        signal.signal(number, signal.SIG_DFL)
    subprocess.run(["ip", "link", "set", "lo", "up"], check=True)
    # The unshare of Ubuntu 22.04 leaves SIGTERM ignored.
    signal.signal(signal.SIGTERM, signal.SIG_DFL)
    worker = os.fork()
    if worker == 0:
        sys.exit(work())
    # Orphans become children of this process, the first in the namespace, which has to reap them.
    while True:
        pid, status = os.wait()
        if pid == worker:
            # When the first process ends, the kernel kills all other processes of the namespace.
            os._exit(0 if status == 0 else 1)


def enter():
    """Replaces this process by the same script in the namespaces. If the machine refuses namespaces, the script is
    skipped; with KESTRUNE_NO_SKIPS it fails."""
    namespaces = ["--pid", "--net", "--mount", "--ipc", "--fork", "--kill-child", "--mount-proc"]
    for as_root in ([], ["--user", "--map-root-user"]):
        unshare = ["unshare", *as_root, *namespaces, "--"]
        trial = subprocess.run([*unshare, "ip", "link", "set", "lo", "up"], capture_output=True, text=True)
        if trial.returncode == 127:  # `ip` is not installed
            sys.exit(trial.stderr.strip())
        if trial.returncode == 0:
            os.environ[MARK] = "1"
            os.execvp("unshare", [*unshare, sys.executable, *sys.orig_argv[1:]])
    print(f"[  SKIPPED ] needs namespaces, which this machine refuses: {trial.stderr.strip()}")
    sys.exit("KESTRUNE_NO_SKIPS" in os.environ or SKIPPED)
