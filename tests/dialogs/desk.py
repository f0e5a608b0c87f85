"""A display, a bus and a screen reader's view of a test's own, and the program that shows the windows."""

import ctypes
import json
import os
import select
import shutil
import signal
import subprocess
import tempfile
import time
from contextlib import suppress
from pathlib import Path

from gi.repository import Gio, GLib

BUILD = Path(os.environ["KESTRUNE_BUILD"])
PROGRAM = BUILD / "KestruneMenuDialogs"
VERSION = 1

# Far more than anything here takes; only a fault lets it pass.
PATIENCE = 40.0
# A window manager that says nothing for so long is asked again.
ANSWER = 0.1

BUS = """<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>session</type>
  <listen>unix:path={}</listen>
  <policy context="default">
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
    <allow own="*"/>
  </policy>
</busconfig>
"""

SET_PARENT_DEATH_SIGNAL, SET_CHILD_SUBREAPER = 1, 36
libc = ctypes.CDLL(None)

STATES = {1: "active", 4: "checked", 7: "editable", 8: "enabled", 11: "focusable", 12: "focused", 24: "sensitive",
          25: "showing", 30: "visible", 41: "checkable"}


class Deadline:
    def __init__(self, seconds=PATIENCE):
        self.end = time.monotonic() + seconds

    def left(self):
        return max(0.0, self.end - time.monotonic())


def die_with_parent():
    libc.prctl(SET_PARENT_DEATH_SIGNAL, signal.SIGKILL)


def children():
    return [int(pid) for pid in Path("/proc/self/task", str(os.getpid()), "children").read_text().split()]


class Desk:
    """Everything in it ends with the class of tests that it is made for."""

    def __init__(self, test, screen="1280x900", manager=False):
        # What its programs leave behind becomes a child of this process, and ends with the rest.
        libc.prctl(SET_CHILD_SUBREAPER, 1)
        self.root = Path(tempfile.mkdtemp(prefix="kestrune-dialogs-"))
        self.spawned = []
        test.addClassCleanup(self.close)
        self.environment = {
            "PATH": "/usr/local/bin:/usr/bin:/bin:/usr/sbin:/sbin",
            "LANG": "C.UTF-8",
            "HOME": str(self.root),
            "XDG_RUNTIME_DIR": str(self.root),
            "GSETTINGS_BACKEND": "memory",
            "NO_AT_BRIDGE": "1",
            "QT_ACCESSIBILITY": "1",
            "QT_LINUX_ACCESSIBILITY_ALWAYS_ON": "1",
        }
        # What a build with sanitizers is told.
        self.environment.update({name: value for name, value in os.environ.items() if name.endswith("SAN_OPTIONS")})
        self.start_display(screen)
        self.start_bus()
        self.reader = ScreenReader(self)
        if manager:
            self.start_manager()

    def close(self):
        for process in self.spawned:
            process.kill()
            process.wait()
        while pids := children():
            for pid in pids:
                with suppress(ProcessLookupError):
                    os.kill(pid, signal.SIGKILL)
                with suppress(ChildProcessError):
                    os.waitpid(pid, 0)
        shutil.rmtree(self.root)

    def spawn(self, *command, **options):
        ordinary = {"env": self.environment, "cwd": self.root, "stdin": subprocess.DEVNULL,
                    "stdout": subprocess.DEVNULL, "stderr": subprocess.DEVNULL, "preexec_fn": die_with_parent}
        self.spawned.append(subprocess.Popen(command, **{**ordinary, **options}))
        return self.spawned[-1]

    def run(self, *command):
        """What another program of the desk prints."""
        return subprocess.run(command, env=self.environment, cwd=self.root, stdin=subprocess.DEVNULL, check=True,
                              capture_output=True, timeout=PATIENCE).stdout

    # --- its parts

    def start_display(self, screen):
        near, far = os.pipe()
        self.display = self.spawn("Xvfb", "-displayfd", str(far), "-screen", "0", f"{screen}x24", "-nolisten", "tcp", "-noreset",
                                  pass_fds=[far])
        os.close(far)
        self.environment["DISPLAY"] = ":" + read_line(near)
        os.close(near)

    def start_bus(self):
        configuration = self.root / "bus.conf"
        configuration.write_text(BUS.format(self.root / "bus"))
        near, far = os.pipe()
        self.spawn("dbus-daemon", f"--config-file={configuration}", "--nofork", f"--print-address={far}",
                   pass_fds=[far])
        os.close(far)
        self.environment["DBUS_SESSION_BUS_ADDRESS"] = read_line(near)
        os.close(near)

    def start_manager(self):
        with self.watch_root() as changes:
            self.spawn("openbox", "--sm-disable", env={**self.environment, "XDG_CONFIG_HOME": str(self.root)})
            changes.wait(b"_NET_CLIENT_LIST(WINDOW)")
            # That it manages it says before it does, and what it is asked for until then may lie there until
            # something else comes. It has to have done something.
            deadline = Deadline()
            while b"_NET_NUMBER_OF_DESKTOPS(CARDINAL) = 2" not in changes.text:
                if deadline.left() == 0:
                    raise AssertionError("the window manager does nothing")
                self.run("xdotool", "set_num_desktops", "2")
                changes.read(ANSWER)

    def watch_root(self):
        return RootWindow(self)

    @staticmethod
    def names_of_processes():
        """Of this process's children."""
        return [Path(f"/proc/{pid}/comm").read_text().strip() for pid in children()]

    # --- what a user does

    def program(self, *arguments, **options):
        return Program(self, *arguments, **options)

    def keys(self, *names):
        self.run("xdotool", "key", *names)

    def type(self, text):
        self.run("xdotool", "type", "--delay", "0", text)

    def screenshot(self, name):
        """For somebody who looks at them; they are kept where the environment says."""
        if folder := os.environ.get("KESTRUNE_SCREENSHOTS"):
            (Path(folder) / f"{name}.png").write_bytes(self.run("import", "-window", "root", "png:-"))

    def colours(self, x, y, width, height):
        """The colours in a part of the screen."""
        picture = self.root / "screen.png"
        picture.write_bytes(self.run("import", "-window", "root", "png:-"))
        text = self.run("convert", str(picture), "-crop", f"{width}x{height}+{x}+{y}", "+repage", "-unique-colors",
                        "-depth", "8", "txt:-").decode()
        return {line.split()[2] for line in text.splitlines() if not line.startswith("#")}


def read_line(descriptor):
    deadline = Deadline()
    text = b""
    while not text.endswith(b"\n"):
        if not select.select([descriptor], [], [], deadline.left())[0]:
            raise AssertionError(f"no line within {PATIENCE:g} s after {text}")
        piece = os.read(descriptor, 4096)
        if not piece:
            raise AssertionError(f"the stream ended after {text}")
        text += piece
    return text.decode().strip()


class RootWindow:
    """The changes of the root window's properties from now on."""

    def __init__(self, desk):
        self.process = desk.spawn("xprop", "-root", "-spy", stdout=subprocess.PIPE)
        self.text = b""

    def wait(self, what):
        deadline = Deadline()
        while what not in self.text:
            if not self.read(deadline.left()):
                raise AssertionError(f"no {what} within {PATIENCE:g} s, but {self.text}")

    def read(self, seconds):
        """Whether there was any in that time."""
        there = bool(select.select([self.process.stdout], [], [], seconds)[0])
        if there:
            self.text += os.read(self.process.stdout.fileno(), 65536)
        return there

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.kill()
        self.process.wait()
        self.process.stdout.close()


class Program:
    """The program that is under test."""

    def __init__(self, desk, *arguments, environment=None, **options):
        changed = {**desk.environment, **(environment or {})}
        self.process = desk.spawn(PROGRAM, *arguments,
                                  env={name: value for name, value in changed.items() if value is not None},
                                  **{"stdin": subprocess.PIPE, "stdout": subprocess.PIPE, "stderr": subprocess.PIPE,
                                     "bufsize": 0, **options})
        self.desk = desk
        self.begun = b""

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.kill()
        self.process.wait()
        self.desk.spawned.remove(self.process)
        for stream in (self.process.stdin, self.process.stdout, self.process.stderr):
            if stream:
                stream.close()

    def send(self, *requests):
        for request in requests:
            line = json.dumps({"version": VERSION, **request}).encode() + b"\n"
            while line:
                line = line[self.process.stdin.write(line):]

    def event(self):
        """The next event; None when there is none any more."""
        deadline = Deadline()
        while b"\n" not in self.begun:
            if not select.select([self.process.stdout], [], [], deadline.left())[0]:
                raise AssertionError(f"no event within {PATIENCE:g} s")
            piece = os.read(self.process.stdout.fileno(), 65536)
            if not piece:
                assert not self.begun, self.begun
                return None
            self.begun += piece
        line, _, self.begun = self.begun.partition(b"\n")
        event = json.loads(line)
        assert event.pop("version") == VERSION, event
        return event

    def show(self, *requests):
        """Sends them and waits until the windows of all are on the screen."""
        self.send(*requests)
        for request in requests:
            shown = self.event()
            assert shown == {"shown": request.get("id", 0)}, shown

    def window(self, name):
        """The window of that name, once it has the keyboard."""
        return self.desk.reader.window(self.process.pid, name)

    def end_input(self):
        self.process.stdin.close()

    def status(self):
        """The exit status; everything that it said has been read before."""
        left = self.event()
        assert left is None, left
        return self.process.wait(PATIENCE)

    def complaint(self):
        """What it said on standard error, once it has ended."""
        return self.process.stderr.read().decode()


# --- as a screen reader sees it

ACCESSIBLE, PROPERTIES = "org.a11y.atspi.Accessible", "org.freedesktop.DBus.Properties"
ROOT = "/org/a11y/atspi/accessible/root"
REGISTRY = "org.a11y.atspi.Registry"
PASSWORD_TEXT = 40


class ScreenReader:
    def __init__(self, desk):
        """On a desk, or on anything else with an environment and programs in it."""
        self.context = GLib.MainContext.default()
        self.signals = []
        session = self.connect(desk.environment["DBUS_SESSION_BUS_ADDRESS"])
        self.launch(desk, session)
        address = call(session, "org.a11y.Bus", "/org/a11y/bus", "org.a11y.Bus", "GetAddress")[0]
        self.bus = self.connect(address)
        self.bus.signal_subscribe(None, None, None, None, None, Gio.DBusSignalFlags.NONE, self.hear)
        for kind in ("object:", "window:", "focus:"):
            call(self.bus, REGISTRY, "/org/a11y/atspi/registry", REGISTRY, "RegisterEvent",
                 GLib.Variant("(sass)", (kind, [], "")))

    @staticmethod
    def connect(address):
        return Gio.DBusConnection.new_for_address_sync(
            address, Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT | Gio.DBusConnectionFlags.MESSAGE_BUS_CONNECTION,
            None, None)

    def launch(self, desk, session):
        ready = []
        watch = Gio.bus_watch_name_on_connection(session, "org.a11y.Bus", Gio.BusNameWatcherFlags.NONE,
                                                 lambda *_: ready.append(True), None)
        desk.spawn("/usr/libexec/at-spi-bus-launcher", "--launch-immediately",
                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.wait(lambda: ready, "bus for screen readers")
        Gio.bus_unwatch_name(watch)

    def hear(self, _connection, sender, path, interface, name, parameters):
        self.signals.append((sender, path, interface.rpartition(".")[2], name, parameters))

    def heard(self):
        """Everything that was told by itself so far: who, what, and with which values."""
        while self.context.iteration(False):
            pass
        return self.signals

    def wait(self, condition, what):
        """The first true value that it has; asked again with each thing that happens."""
        late = []
        timer = GLib.timeout_source_new(int(PATIENCE * 1000))
        timer.set_callback(lambda *_: late.append(True))
        timer.attach(self.context)
        try:
            while True:
                with suppress(GLib.Error, LookupError):  # what is asked may be gone by now, or not there yet
                    if value := condition():
                        return value
                if late:
                    raise AssertionError(f"no {what} within {PATIENCE:g} s")
                self.context.iteration(True)
        finally:
            timer.destroy()

    def applications(self):
        return Node(self, REGISTRY, ROOT).children()

    def windows(self, pid):
        """Those of a process, for as long as it lives."""
        return [window for application in self.applications() if application.pid() == pid
                for window in application.children()]

    def window(self, pid, name):
        def active():
            return next((window for window in self.windows(pid)
                         if window.name() == name and "active" in window.states()), None)
        return self.wait(active, f"active window “{name}”")


    def told_of(self, role):
        """What has come to be seen in the meantime, also if it belongs to no window that is listed."""
        def seen():
            for sender, path, kind, name, values in self.signals:
                if (kind, name, values.unpack()[0]) == ("Object", "StateChanged", "showing"):
                    with suppress(GLib.Error):
                        if (node := Node(self, sender, path)).role() == role:
                            return node
            return None
        return self.wait(seen, role)


def call(bus, name, path, interface, method, arguments=None):
    answer = bus.call_sync(name, path, interface, method, arguments, None, Gio.DBusCallFlags.NONE,
                           int(PATIENCE * 1000), None)
    return answer.unpack()


class Node:
    """Something on the screen, as it is told to a screen reader."""

    def __init__(self, reader, bus, path):
        self.reader, self.bus, self.path = reader, bus, path

    def __eq__(self, other):
        return (self.bus, self.path) == (other.bus, other.path)

    def __repr__(self):
        return f"<{self.role()} “{self.name()}”>"

    def ask(self, interface, method, signature="()", *arguments):
        return call(self.reader.bus, self.bus, self.path, interface, method, GLib.Variant(signature, arguments))

    def property(self, interface, name):
        return self.ask(PROPERTIES, "Get", "(ss)", interface, name)[0]

    def pid(self):
        return call(self.reader.bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                    "GetConnectionUnixProcessID", GLib.Variant("(s)", (self.bus,)))[0]

    def name(self):
        return self.property(ACCESSIBLE, "Name")

    def role(self):
        # The toolkit tells the name of a secure field's role wrong, and its number right.
        if self.ask(ACCESSIBLE, "GetRole")[0] == PASSWORD_TEXT:
            return "password text"
        return self.ask(ACCESSIBLE, "GetRoleName")[0]

    def description(self):
        return self.property(ACCESSIBLE, "Description")

    def states(self):
        low, high = self.ask(ACCESSIBLE, "GetState")[0]
        bits = low | high << 32
        return {name for bit, name in STATES.items() if bits >> bit & 1}

    def is_shown(self):
        with suppress(GLib.Error):  # it is gone
            return "showing" in self.states()
        return False

    def children(self):
        return [Node(self.reader, *child) for child in self.ask(ACCESSIBLE, "GetChildren")[0]]

    def all(self):
        """Everything in it that is to be seen, top to bottom."""
        found = []
        for child in self.children():
            if "visible" in child.states():
                found.append(child)
            found += child.all()
        return found

    def find(self, role, name=None):
        for node in self.all():
            if node.role() == role and name in (None, node.name()):
                return node
        raise LookupError(f"{role} “{name}” in {self}")

    def names(self, role):
        return [node.name() for node in self.all() if node.role() == role]

    def text(self):
        return self.ask("org.a11y.atspi.Text", "GetText", "(ii)", 0, -1)[0]

    def place(self):
        """Left, top, width and height on the screen."""
        return self.ask("org.a11y.atspi.Component", "GetExtents", "(u)", 0)[0]

    def focus(self):
        self.ask("org.a11y.atspi.Component", "GrabFocus")
        self.has_focus()

    def has_focus(self):
        self.reader.wait(lambda: "focused" in self.states(), "focus")

    def press(self):
        """Does the first of its actions without waiting: its window may be gone before it can say so."""
        self.reader.bus.call(self.bus, self.path, "org.a11y.atspi.Action", "DoAction", GLib.Variant("(i)", (0,)),
                             None, Gio.DBusCallFlags.NONE, -1, None, None)

    def keys(self):
        """The keys that it is pressed with."""
        return self.ask("org.a11y.atspi.Action", "GetKeyBinding", "(i)", 0)[0]

    def wait(self, condition, what):
        return self.reader.wait(lambda: condition(self), what)
