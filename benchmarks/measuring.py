"""Common parts of the benchmarks: the build, the test desktop, and the kernel's counters."""

import os
import random
import shutil
import subprocess
import sys
import tempfile
from contextlib import contextmanager
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
BUILD = ROOT / "build" / "benchmark"
TOOLS = BUILD / "benchmarks"
CLIENT = BUILD / "KestruneMenuClient"

sys.path.insert(0, str(ROOT / "tests"))
from rig import isolation  # noqa: E402

BUS = """<busconfig><type>session</type>
<listen>unix:path={}/bus</listen>{}
<policy context="default"><allow send_destination="*" eavesdrop="true"/><allow eavesdrop="true"/><allow own="*"/></policy>
</busconfig>"""


def install(*packages):
    """Installs missing packages; false on failure. A name may be a list in scripts/steps.bash."""
    names = " ".join(f'"${{{name}[@]}}"' if name.endswith("_packages") else name for name in packages)
    script = f". scripts/steps.bash && install_missing {names}"
    return subprocess.run(["bash", "-c", script], cwd=ROOT, stdout=sys.stderr).returncode == 0


def prepare():
    """Installs and builds what all benchmarks need."""
    if not install("build_packages", "run_packages", "benchmark_packages"):
        sys.exit(1)
    for step in (["--preset", "benchmark"], ["--build", "--preset", "benchmark"]):
        subprocess.run(["cmake", *step], cwd=ROOT, check=True, stdout=subprocess.DEVNULL)


def run(work):
    """Builds everything, then calls `work` in its own namespaces."""
    if isolation.MARK not in os.environ:
        prepare()
    isolation.run(work)


# --- the test desktop


@contextmanager
def program(*command, **options):
    """Runs a program and kills it at the end of the block."""
    process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stderr=subprocess.DEVNULL, **options)
    try:
        yield process
    finally:
        process.kill()
        process.wait()


@contextmanager
def bus(kind, services=""):
    """A session or system bus. `services` is XML that names the folders of service files."""
    with tempfile.TemporaryDirectory() as folder:
        configuration = Path(folder, "bus.conf")
        configuration.write_text(BUS.format(folder, services))
        with program("dbus-daemon", "--nofork", "--print-address", f"--config-file={configuration}",
                     stdout=subprocess.PIPE) as daemon:
            daemon.stdout.readline()
            os.environ[f"DBUS_{kind}_BUS_ADDRESS"] = f"unix:path={folder}/bus"
            yield


@contextmanager
def display():
    # Only an abstract socket: these belong to the network namespace, while a socket file would be shared.
    name = f":{random.randrange(100, 60000)}"
    with program("Xvfb", name, "-displayfd", "1", "-nolock", "-nolisten", "tcp", "-nolisten", "unix",
                 "-screen", "0", "1280x900x24", "-noreset", stdout=subprocess.PIPE) as server:
        server.stdout.readline()
        os.environ["DISPLAY"] = name
        yield


def use_home(folder):
    """Creates a user's folders below `folder`, with a copy of the sample backend, and sets the environment."""
    backend = folder / "backend"
    if not backend.exists():
        shutil.copytree(ROOT / "examples/backend", backend, symlinks=True,
                        ignore=shutil.ignore_patterns("run", ".env", "__pycache__"))
    for name in ("runtime", "temporary"):
        shutil.rmtree(folder / name, ignore_errors=True)
        (folder / name).mkdir(mode=0o700)
    # The lock files hold PIDs of killed processes, which a new namespace uses again.
    for lock in folder.glob(".config/*/*.lock"):
        lock.unlink()
    for name in [name for name in os.environ if name.startswith("XDG_")]:
        del os.environ[name]
    os.environ.update(HOME=str(folder), XDG_RUNTIME_DIR=str(folder / "runtime"), TMPDIR=str(folder / "temporary"),
                      LANG="C.UTF-8", KESTRUNE_REPO_PATH=str(backend))


class InTray:
    """A program that has registered its item in a tray."""

    def __init__(self, *command):
        self.tray = subprocess.Popen([TOOLS / "registration", *command], stdin=subprocess.PIPE,
                                     stdout=subprocess.PIPE, text=True)
        told = self.tray.stdout.readline().split()
        if not told:
            self.tray.communicate()
            raise LookupError(f"{command[0]} registers no item")
        self.milliseconds, self.pid = float(told[0]), int(told[1])

    def end(self):
        """Kills the program. Returns its number of change signals, wake-ups and milliseconds of CPU; the last two
        include the children that it has waited for."""
        changes, woken, milliseconds = self.tray.communicate()[0].split()
        return int(changes), int(woken), float(milliseconds)


# --- the kernel's counters


def read(*path):
    """The contents of a file in /proc; empty if the process has ended."""
    try:
        return Path("/proc", *map(str, path)).read_text()
    except OSError:
        return ""


def threads(pid):
    try:
        return os.listdir(f"/proc/{pid}/task")
    except OSError:
        return []


def family(pid):
    """The PIDs of the process and its descendants, without reparented ones."""
    children = [child for thread in threads(pid) for child in read(pid, "task", thread, "children").split()]
    return [pid, *(each for child in children for each in family(int(child)))]


def memory(pids):
    """PSS, RSS and private dirty memory of the processes, in kB."""
    total = {"Pss": 0, "Rss": 0, "Private_Dirty": 0}
    for pid in pids:
        for line in read(pid, "smaps_rollup").splitlines()[1:]:
            name, value, _ = line.split()
            if name[:-1] in total:
                total[name[:-1]] += int(value)
    return tuple(total.values())


class Activity:
    """Wake-ups and CPU milliseconds of processes since it was created. Call `look` often: what a thread has done since
    the last call is lost when the thread ends."""

    def __init__(self, *pids):
        self.seen = {}
        self.woken, self.milliseconds = 0, 0.0
        self.look(pids)
        self.woken, self.milliseconds = 0, 0.0

    def look(self, pids):
        for pid in pids:
            for thread in threads(pid):
                woken = sum(int(line.split()[1]) for line in read(pid, "task", thread, "status").splitlines()
                            if line.startswith("voluntary_ctxt_switches"))
                milliseconds = int((read(pid, "task", thread, "schedstat") or "0").split()[0]) / 1e6
                before = self.seen.get(thread, (0, 0.0))
                self.seen[thread] = max(woken, before[0]), max(milliseconds, before[1])
                self.woken += self.seen[thread][0] - before[0]
                self.milliseconds += self.seen[thread][1] - before[1]
        return self.woken, self.milliseconds
