"""Samples of the client's memory, descriptors, threads and children."""

import contextlib
import os
import threading

from rig.processes import read_process

SAMPLES = 2.0  # seconds between two samples


class Kept:
    """One sample of a process."""

    names = "PSS, kB", "RSS, kB", "private, kB", "descriptors", "threads", "children", "of them zombies"
    bounded, flat = names[1:3], names[3:]

    def __init__(self, pid):
        lines = [line.split() for line in read_process(pid, "smaps_rollup").decode().splitlines()[1:]]
        sizes = {line[0]: int(line[1]) for line in lines}
        self.memory = [sizes[name] for name in ("Pss:", "Rss:", "Private_Dirty:")]
        states = []
        for each in filter(str.isdigit, os.listdir("/proc")):
            # Skip the name of the process: it is in brackets and may contain spaces.
            fields = read_process(each, "stat").decode().rpartition(")")[2].split()
            if fields and int(fields[1]) == pid:
                states.append(fields[0])
        self.counts = [len(os.listdir(f"/proc/{pid}/{folder}")) for folder in ("fd", "task")]
        self.counts += [len(states), states.count("Z")]

    def values(self):
        return [*self.memory, *self.counts]


class Sampler(threading.Thread):
    """A thread that takes samples all the time, and keeps the maximum of each value."""

    def __init__(self, pid):
        super().__init__(daemon=True)
        self.pid = pid
        self.most = Kept(pid).values()
        self.count = 1
        self.enough = threading.Event()

    def run(self):
        while not self.enough.wait(SAMPLES):
            with contextlib.suppress(OSError, KeyError):  # the process has ended; the test reports that
                self.most = list(map(max, self.most, Kept(self.pid).values()))
                self.count += 1

    def stop(self):
        self.enough.set()
        self.join()
