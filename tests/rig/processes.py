"""The processes and ports of the namespace that a test runs in."""

import os
import select
import signal
from contextlib import suppress
from pathlib import Path

from rig.waiting import PATIENCE

PORTS = 8765, 8766, 18765


def read_process(pid, name):
    with suppress(OSError):
        return Path(f"/proc/{pid}/{name}").read_bytes()
    return b""


def process_state(pid):
    """The letter of the process's state; empty without such a process."""
    return read_process(pid, "stat").rpartition(b") ")[2][:1]


def running():
    """Ids of the processes of the namespace, without zombies."""
    # By their state: during execve a process has no command line.
    return [int(name) for name in os.listdir("/proc")
            if name.isdigit() and process_state(name) not in (b"", b"Z", b"X")]


def program_of(pid):
    """The path of the program that the process runs; empty if the process has ended."""
    with suppress(OSError):
        return os.readlink(f"/proc/{pid}/exe")
    return ""


def processes_of(name):
    """Ids of the processes that run a program of that name, also if it was replaced meanwhile."""
    return [pid for pid in running() if Path(program_of(pid).removesuffix(" (deleted)")).name == name]


def memory(pid, name):
    """Bytes of that kind, such as VmRSS, as the kernel counts them."""
    for line in read_process(pid, "status").decode().splitlines():
        if line.startswith(name + ":"):
            return int(line.split()[1]) << 10
    raise AssertionError(f"{pid} is gone")


def wait_for_end(pid, seconds=PATIENCE):
    try:
        process = os.pidfd_open(pid)
    except ProcessLookupError:
        return
    try:
        if not select.select([process], [], [], seconds)[0]:
            raise AssertionError(f"still running after {seconds:g} s: {pid} {read_process(pid, 'cmdline')}")
    finally:
        os.close(process)


def end_process(pid, number=signal.SIGKILL):
    with suppress(ProcessLookupError):
        os.kill(pid, number)
    wait_for_end(pid)


def listening_ports():
    ports = set()
    for table in ("/proc/net/tcp", "/proc/net/tcp6"):
        for line in Path(table).read_text().splitlines()[1:]:
            fields = line.split()
            if fields[3] == "0A":
                ports.add(int(fields[1].rpartition(":")[2], 16))
    return ports


def write_script(path, text):
    path.write_text("#!/bin/bash\n" + text)
    path.chmod(0o755)
