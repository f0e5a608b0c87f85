"""Common parts of the benchmarks: the build, a session with a tray, and the kernel's counters. The session, its buses
and its screen come from the tests (tests/rig)."""

import os
import subprocess
import sys
import time
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
os.environ.setdefault("KESTRUNE_BUILD", str(ROOT / "build/benchmark"))
os.environ.setdefault("KESTRUNE_SOURCE", str(ROOT))
sys.path.insert(0, str(ROOT / "tests"))

from gi.repository import GLib  # noqa: E402

from rig import isolation  # noqa: E402
from rig.bus import ITEM, MENU, PROPERTIES, Bus, SystemBus  # noqa: E402
from rig.processes import end_process, memory_sizes, read_process  # noqa: E402
from rig.session import BUILD, PROGRAM, Session  # noqa: E402
from rig.wire import CALL, DAEMON, SIGNAL, Peer, answers, refuses  # noqa: E402

TOOLS = BUILD / "benchmarks"
CLIENT = str(PROGRAM)
PATIENCE = 30  # seconds to wait until an item is registered


def install(*packages):
    """Installs missing packages. Returns False on failure. A name "…_packages" is a list in scripts/steps.bash."""
    names = " ".join(f'"${{{name}[@]}}"' if name.endswith("_packages") else name for name in packages)
    script = f". scripts/steps.bash && install_missing {names}"
    return subprocess.run(["bash", "-c", script], cwd=ROOT, stdout=sys.stderr).returncode == 0


def prepare():
    """Installs and builds what all benchmarks need. A build in another folder (KESTRUNE_BUILD) is used as it is."""
    if BUILD != ROOT / "build/benchmark":
        return
    if not install("build_packages", "run_packages", "benchmark_packages"):
        sys.exit(1)
    for step in (["--preset", "benchmark"], ["--build", "--preset", "benchmark"]):
        subprocess.run(["cmake", *step], cwd=ROOT, check=True, stdout=subprocess.DEVNULL)


def run(work):
    """Builds everything, then calls `work` in new namespaces, apart from the user's session."""
    if isolation.MARK not in os.environ:
        prepare()
    isolation.run(work)


class Desk(Session):
    """A session with a session bus and a system bus. Screen readers are off, as on most desktops."""

    def __init__(self, configuration=""):
        super().__init__()
        for name in ("QT_ACCESSIBILITY", "QT_LINUX_ACCESSIBILITY_ALWAYS_ON"):
            del self.environment[name]
        self.bus, self.system_bus = Bus(self, configuration), SystemBus(self)


class Tray(Peer):
    """A tray (StatusNotifierWatcher and host). Reads an item and its menu as panels do, and again after each change."""

    NAME, PATH = "org.kde.StatusNotifierWatcher", "/StatusNotifierWatcher"

    def __init__(self, bus):
        self.item = self.menu = self.registered = self.first = None
        self.changes = 0
        super().__init__(bus, self.NAME, Tray.serve)
        for interface in (ITEM[2], MENU[2]):
            self.send(DAEMON, "AddMatch", "s", f"type='signal',interface='{interface}'")

    def send(self, target, method, *arguments):
        return self.connection.send(self.connection.message(target, method, *arguments))

    def read(self, target):
        if target[2] == ITEM[2]:
            return self.send((*target[:2], PROPERTIES), "GetAll", "s", target[2])
        return self.send(target, "GetLayout", "iias", 0, -1, [])

    def serve(self, call):
        method, arguments = call.get_member(), call.get_body().unpack() if call.get_body() else ()
        items = ["".join(self.item[:2])] if self.item else []
        properties = {"RegisteredStatusNotifierItems": GLib.Variant("as", items),
                      "IsStatusNotifierHostRegistered": GLib.Variant("b", True),
                      "ProtocolVersion": GLib.Variant("i", 0)}
        if method == "RegisterStatusNotifierItem":
            if not self.item:
                self.registered = time.monotonic()
                # The argument is an object path of the caller, or a bus name with the item at the default path.
                service, = arguments
                is_path = service.startswith("/")
                self.item = (call.get_sender(), service, ITEM[2]) if is_path else (service, *ITEM[1:])
                self.first = self.read(self.item)
            self.connection.emit(self.PATH, self.NAME, "StatusNotifierItemRegistered", "s", *arguments)
            answers()(self, call)
        elif method == "RegisterStatusNotifierHost":
            answers()(self, call)
        elif method == "GetAll":
            answers("a{sv}", properties)(self, call)
        elif method == "Get" and arguments[1] in properties:
            answers("v", properties[arguments[1]])(self, call)
        else:
            refuses("org.freedesktop.DBus.Error.UnknownMethod")(self, call)

    def keep(self, message):
        kind = message.get_message_type()
        if kind == CALL:
            return super().keep(message)
        if kind == SIGNAL and message.get_interface() in (ITEM[2], MENU[2]):
            self.changes += 1
            changed = self.item if message.get_interface() == ITEM[2] else self.menu
            if changed and message.get_member() != "ItemsPropertiesUpdated":
                self.read(changed)
        elif self.first and message.get_reply_serial() == self.first:
            [properties] = message.get_body().unpack()
            if path := properties.get("Menu"):
                self.menu = (self.item[0], path, MENU[2])
                self.read(self.menu)
            return "read"
        return None


class InTray:
    """Starts a program, and waits until the program has registered its item in a tray."""

    def __init__(self, desk, *command):
        self.desk = desk
        self.tray = Tray(desk.bus)
        nothing = [(os.POSIX_SPAWN_OPEN, number, "/dev/null", os.O_RDWR, 0) for number in range(3)]
        start = time.monotonic()
        self.pid = os.posix_spawnp(command[0], command, desk.environment, file_actions=nothing)
        try:
            self.tray.wait(lambda: "read" in self.tray.kept, "item", PATIENCE)
        except AssertionError as error:
            self.end()
            raise LookupError(f"{command[0]} registers no item") from error
        self.milliseconds = (self.tray.registered - start) * 1000

    def end(self):
        """Kills the program. Returns the numbers of its change signals, its wake-ups and its CPU milliseconds. Wake-ups
        and CPU include the children that the program has waited for."""
        os.kill(self.pid, 9)
        used = os.wait4(self.pid, 0)[2]
        self.tray.kill()
        # Kill all processes of the session except the buses and the screen.
        for pid in set(self.desk.processes()) - {each.pid for each in self.desk.others}:
            end_process(pid)
        return self.tray.changes, used.ru_nvcsw, (used.ru_utime + used.ru_stime) * 1000


# --- the kernel's counters


def threads(pid):
    try:
        return os.listdir(f"/proc/{pid}/task")
    except OSError:
        return []


def read(pid, *path):
    """Returns the contents of a file in /proc/PID; empty if the process has ended."""
    return read_process(pid, "/".join(path)).decode()


def family(pid):
    """Returns the PIDs of the process and its descendants, except descendants whose parent has ended."""
    children = [child for thread in threads(pid) for child in read(pid, "task", thread, "children").split()]
    return [pid, *(each for child in children for each in family(int(child)))]


def memory(pids):
    """Returns the PSS, RSS and private dirty memory of all the processes together, in kB."""
    return [sum(column) for column in zip(*map(memory_sizes, pids))]


class Activity:
    """Counts wake-ups and CPU milliseconds of processes since this object was created. Call `look` often: what a thread
    has done since the last call is lost when the thread ends."""

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
