"""What the benchmarks have in common: what they build, the desk that they measure at, and what the kernel counts."""

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
from support import isolation  # noqa: E402

BUS = """<busconfig><type>session</type>
<listen>unix:path={}/bus</listen>{}
<policy context="default"><allow send_destination="*" eavesdrop="true"/><allow eavesdrop="true"/><allow own="*"/></policy>
</busconfig>"""


def install(*packages):
    """Whether these packages are there now. A name may be that of a list in scripts/steps.bash."""
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
    """Does the work in namespaces of its own, with everything built."""
    if isolation.MARK not in os.environ:
        prepare()
    isolation.run(work)


# --- the desk


@contextmanager
def program(*command, **options):
    """Another program, which ends with the block."""
    process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stderr=subprocess.DEVNULL, **options)
    try:
        yield process
    finally:
        process.kill()
        process.wait()


@contextmanager
def bus(kind, services=""):
    """A bus of the session or of the system, which starts programs as the folders of services say."""
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
    # By an abstract socket alone, of which the namespace has its own: what is in a folder, all share.
    name = f":{random.randrange(100, 60000)}"
    with program("Xvfb", name, "-displayfd", "1", "-nolock", "-nolisten", "tcp", "-nolisten", "unix",
                 "-screen", "0", "1280x900x24", "-noreset", stdout=subprocess.PIPE) as server:
        server.stdout.readline()
        os.environ["DISPLAY"] = name
        yield


def use_home(folder):
    """A user's folders below that one, and in them a copy of the sample backend that the client watches over."""
    backend = folder / "backend"
    if not backend.exists():
        shutil.copytree(ROOT / "examples/backend", backend, symlinks=True,
                        ignore=shutil.ignore_patterns("run", ".env", "__pycache__"))
    for name in ("runtime", "temporary"):
        shutil.rmtree(folder / name, ignore_errors=True)
        (folder / name).mkdir(mode=0o700)
    # They name processes that were killed by numbers, which another namespace gives out again.
    for lock in folder.glob(".config/*/*.lock"):
        lock.unlink()
    for name in [name for name in os.environ if name.startswith("XDG_")]:
        del os.environ[name]
    os.environ.update(HOME=str(folder), XDG_RUNTIME_DIR=str(folder / "runtime"), TMPDIR=str(folder / "temporary"),
                      LANG="C.UTF-8", KESTRUNE_REPO_PATH=str(backend))


class InTray:
    """A program that has put its item into a tray."""

    def __init__(self, *command):
        self.tray = subprocess.Popen([TOOLS / "registration", *command], stdin=subprocess.PIPE,
                                     stdout=subprocess.PIPE, text=True)
        told = self.tray.stdout.readline().split()
        if not told:
            self.tray.communicate()
            raise LookupError(f"{command[0]} registers no item")
        self.milliseconds, self.pid = float(told[0]), int(told[1])

    def end(self):
        """How often it told of a change, the wake-ups and the milliseconds of CPU of it and of the children that it
        has waited for."""
        changes, woken, milliseconds = self.tray.communicate()[0].split()
        return int(changes), int(woken), float(milliseconds)


# --- what the kernel counts


def read(*path):
    """What is in a file of a process, or nothing if that has ended."""
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
    """The process, and those that it and its children have started and not lost."""
    children = [child for thread in threads(pid) for child in read(pid, "task", thread, "children").split()]
    return [pid, *(each for child in children for each in family(int(child)))]


def memory(pids):
    """Kilobytes of the processes: their share of everything, all that is resident, and what nobody could share."""
    total = {"Pss": 0, "Rss": 0, "Private_Dirty": 0}
    for pid in pids:
        for line in read(pid, "smaps_rollup").splitlines()[1:]:
            name, value, _ = line.split()
            if name[:-1] in total:
                total[name[:-1]] += int(value)
    return tuple(total.values())


class Activity:
    """What processes have done since it was made. To be looked at every now and then, because what a thread has done
    since the last look is lost when it ends."""

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
