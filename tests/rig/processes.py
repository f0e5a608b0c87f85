"""The processes and listening ports of the namespace in which a test runs."""

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


def running():
    """Returns the ids of all processes of the namespace that are not zombies."""
    # Reads the state. An empty command line would not prove a zombie: in execve, a process has none for a moment.
    return [int(name) for name in os.listdir("/proc")
            if name.isdigit() and read_process(name, "stat").rpartition(b") ")[2][:1] not in (b"", b"Z", b"X")]


def program_of(pid):
    """Returns the path of the program that the process runs, or "" if the process has ended."""
    with suppress(OSError):
        return os.readlink(f"/proc/{pid}/exe")
    return ""


def processes_of(name):
    """Returns the ids of the processes that run a program of this name, even if its file has been replaced."""
    return [pid for pid in running() if Path(program_of(pid).removesuffix(" (deleted)")).name == name]


def memory(pid, name):
    """Returns the size in bytes of one kind of memory. `name`: its name in /proc/PID/status, such as VmRSS."""
    for line in read_process(pid, "status").decode().splitlines():
        if line.startswith(name + ":"):
            return int(line.split()[1]) << 10
    raise AssertionError(f"{pid} is gone")


def memory_sizes(pid):
    """Returns the PSS, RSS and private dirty memory of the process in kB. They are 0 if the process has ended."""
    lines = map(str.split, read_process(pid, "smaps_rollup").decode().splitlines()[1:])
    sizes = {name: int(size) for name, size, _ in lines}
    return [sizes.get(name, 0) for name in ("Pss:", "Rss:", "Private_Dirty:")]


def wait_for_end(*pids, seconds=PATIENCE):
    """Waits until these processes have ended, at most `seconds` for each."""
    for pid in pids:
        try:
            process = os.pidfd_open(pid)
        except ProcessLookupError:
            continue
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
