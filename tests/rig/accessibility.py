"""A screen reader for tests: reads and presses what is on the screen, over AT-SPI (the accessibility bus)."""

from contextlib import suppress

from gi.repository import Gio, GLib

from rig.bus import PROPERTIES
from rig.waiting import PATIENCE, Deadline

STATES = {1: "active", 4: "checked", 7: "editable", 8: "enabled", 11: "focusable", 12: "focused", 24: "sensitive",
          25: "showing", 30: "visible", 41: "checkable"}

WHILE = 200  # milliseconds between two checks of a condition

ACCESSIBLE = "org.a11y.atspi.Accessible"
ROOT = "/org/a11y/atspi/accessible/root"
REGISTRY = "org.a11y.atspi.Registry"
# The names of roles, by number; role() adds names. Role 40 is set here, because Qt gives it a wrong name.
ROLES = {40: "password text"}


class ScreenReader:
    def __init__(self, session):
        self.context = GLib.MainContext.default()
        self.signals = []
        bus = self.connect(session.environment["DBUS_SESSION_BUS_ADDRESS"])
        self.launch(session, bus)
        address = call(bus, "org.a11y.Bus", "/org/a11y/bus", "org.a11y.Bus", "GetAddress")[0]
        self.bus = self.connect(address)
        self.bus.signal_subscribe(None, None, None, None, None, Gio.DBusSignalFlags.NONE, self.hear)
        for kind in ("object:", "window:", "focus:"):
            call(self.bus, REGISTRY, "/org/a11y/atspi/registry", REGISTRY, "RegisterEvent",
                 GLib.Variant("(sas)", (kind, [])))

    @staticmethod
    def connect(address):
        return Gio.DBusConnection.new_for_address_sync(
            address, Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT | Gio.DBusConnectionFlags.MESSAGE_BUS_CONNECTION,
            None, None)

    def launch(self, session, bus):
        ready = []
        watch = Gio.bus_watch_name_on_connection(bus, "org.a11y.Bus", Gio.BusNameWatcherFlags.NONE,
                                                 lambda *_: ready.append(True), None)
        session.spawn("/usr/libexec/at-spi-bus-launcher", "--launch-immediately")
        self.wait(lambda: ready, "bus for screen readers")
        Gio.bus_unwatch_name(watch)

    def hear(self, _connection, sender, path, interface, name, parameters):
        self.signals.append((sender, path, interface.rpartition(".")[2], name, parameters))

    def heard(self):
        """Returns all signals so far, each as sender, path, interface, name and values."""
        while self.context.iteration(False):
            pass
        return self.signals

    def wait(self, condition, what):
        """Waits until the condition is true, and returns its value. Checks it after each signal and every WHILE
        milliseconds, because not every change causes a signal."""
        deadline = Deadline()
        timer = GLib.timeout_source_new(WHILE)
        timer.set_callback(lambda *_: True)
        timer.attach(self.context)
        try:
            while True:
                with suppress(GLib.Error, LookupError):  # the object may not exist any more, or not yet
                    if value := condition():
                        return value
                if deadline.left() == 0:
                    raise AssertionError(f"no {what} within {PATIENCE:g} s")
                self.context.iteration(True)
        finally:
            timer.destroy()

    def applications(self):
        return Node(self, REGISTRY, ROOT).children()

    def windows(self, pid=None):
        """Returns the windows of the process `pid`, or of all processes if `pid` is None."""
        return [window for application in self.applications() if pid in (None, application.pid())
                for window in application.children()]

    def window(self, name, pid=None):
        """Waits until the window with this name is active, and returns it."""
        return self.wait(lambda: next((window for window in self.windows(pid)
                                       if window.name() == name and "active" in window.states()), None),
                         f"active window “{name}”")

    def told_of(self, role):
        """Waits for a signal that a node with this role is showing. Returns this node, even if no listed window
        contains it."""
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
    """An accessible object of a program: a window or something in it."""

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
        number = self.ask(ACCESSIBLE, "GetRole")[0]
        if number not in ROLES:
            ROLES[number] = self.ask(ACCESSIBLE, "GetRoleName")[0]
        return ROLES[number]

    def description(self):
        return self.property(ACCESSIBLE, "Description")

    def states(self):
        low, high = self.ask(ACCESSIBLE, "GetState")[0]
        bits = low | high << 32
        return {name for bit, name in STATES.items() if bits >> bit & 1}

    def is_shown(self):
        with suppress(GLib.Error):  # the object does not exist any more
            return "showing" in self.states()
        return False

    def children(self):
        return [Node(self.reader, *child) for child in self.ask(ACCESSIBLE, "GetChildren")[0]]

    def walk(self):
        """Yields all descendants, top to bottom."""
        for child in self.children():
            yield child
            yield from child.walk()

    def is_visible(self):
        return "visible" in self.states()

    def all(self):
        """Returns the visible descendants, top to bottom."""
        return list(filter(Node.is_visible, self.walk()))

    def find(self, role, name=None):
        for node in self.walk():
            if name in (None, node.name()) and node.role() == role and node.is_visible():
                return node
        raise LookupError(f"{role} “{name}” in {self}")

    def names(self, role):
        return [node.name() for node in self.walk() if node.role() == role and node.is_visible()]

    def text(self):
        return self.ask("org.a11y.atspi.Text", "GetText", "(ii)", 0, -1)[0]

    def place(self):
        """Returns left, top, width and height on the screen."""
        return self.ask("org.a11y.atspi.Component", "GetExtents", "(u)", 0)[0]

    def focus(self):
        self.ask("org.a11y.atspi.Component", "GrabFocus")
        self.has_focus()

    def has_focus(self):
        self.reader.wait(lambda: "focused" in self.states(), "focus")

    def press(self):
        """Calls the first action of the node. Waits for no answer: the program may end before it answers."""
        self.reader.bus.call(self.bus, self.path, "org.a11y.atspi.Action", "DoAction", GLib.Variant("(i)", (0,)),
                             None, Gio.DBusCallFlags.NONE, -1, None, None)

    def keys(self):
        """Returns the keyboard shortcut of the node."""
        return self.ask("org.a11y.atspi.Action", "GetKeyBinding", "(i)", 0)[0]

    def wait(self, condition, what):
        return self.reader.wait(lambda: condition(self), what)
