"""Other programs of the session that call the client with what makes no sense, is far too much, or is not for them."""

import struct
import time
import unittest

from gi.repository import GLib

from rig import isolation
from rig.bus import ITEM, MENU, Bus
from rig.processes import memory, read_process
from rig.session import SWITCHED_OFF, Session
from rig.windows import GUIDE
from rig.wire import Connection, Peer, Refused, answers

SEPARATOR, GUIDE_ROW, QUIT_ROW = 12, 24, 29

ZERO = GLib.Variant("i", 0)

GIANT = 4 << 20  # bytes
FLOOD = 3000  # calls
# Bytes. What one giant took may stay with the client for the next, but no more than that.
PEAK = 256 << 20
GROWTH = 40 << 20
SOON = 5.0  # seconds, until somebody else is answered


NO_TEXTS = GLib.Variant("as", [])


def numbers(values):
    data = struct.pack(f"={len(values)}i", *values)
    return GLib.Variant.new_from_bytes(GLib.VariantType("ai"), GLib.Bytes(data), True)


def clicks(rows):
    """The body of a group of events."""
    events = {row: GLib.Variant("(isvu)", (row, "clicked", ZERO, 0)) for row in set(rows)}
    return GLib.Variant.new_tuple(GLib.Variant.new_array(None, [events[row] for row in rows]))


class Hostile(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.session = Session(cls)
        # Switched off, it runs no command of its own accord: each that runs was asked for.
        cls.session.prefer(SWITCHED_OFF)
        cls.session.stub_backend('echo "$1 asked" > "$HOME/events"\n')
        cls.bus = Bus(cls.session)
        cls.daemon = Peer(cls.bus, "org.freedesktop.Notifications", answers("as", []))
        cls.client = cls.session.start()
        # The last of what follows a start.
        cls.daemon.wait_for("Notify")
        cls.chosen = 0
        cls.rows = cls.bus.rows()
        cls.children = cls.of_client()
        cls.before = memory(cls.client.pid, "VmRSS")
        cls.caller = cls.connect()

    @classmethod
    def connect(cls):
        connection = Connection(cls.bus)
        cls.session.callback(connection.close)
        return connection

    @classmethod
    def of_client(cls):
        """The client and all that it has started."""
        return {pid for pid in cls.session.processes() if b"dbus-daemon" not in read_process(pid, "cmdline")}

    def ask(self, target, method, signature="", *arguments):
        return self.caller.ask(self.bus.target(target), method, signature, *arguments)

    def guides(self):
        """How often the row was chosen that tells something by a notification."""
        return [arguments[3] for _, arguments, _ in self.daemon.calls("Notify")].count(GUIDE.title)

    def assertRefused(self, *call):
        with self.assertRaises(Refused):
            self.ask(*call)

    def assertAnswersSoon(self):
        """Somebody else than the caller is served."""
        begin = time.monotonic()
        self.connect().ask(self.bus.target(("the client", "/", "org.freedesktop.DBus.Peer")), "Ping")
        self.assertLess(time.monotonic() - begin, SOON)

    def tearDown(self):
        """Nothing has happened, and the client still does what it is to do."""
        self.assertAnswersSoon()
        self.assertEqual(self.bus.rows(), self.rows)
        self.assertEqual(self.session.events.pending(), [])
        self.assertEqual(self.of_client(), self.children)
        self.assertEqual(self.guides(), self.chosen)
        self.assertLess(memory(self.client.pid, "VmHWM"), PEAK)
        self.assertLess(memory(self.client.pid, "VmRSS") - self.before, GROWTH)

    def assertChosenOnce(self):
        type(self).chosen += 1
        self.assertAnswersSoon()
        self.daemon.wait(lambda: self.guides() >= self.chosen, "notification")

    @classmethod
    def tearDownClass(cls):
        cls.bus.click(QUIT_ROW)
        assert cls.client.status() == 0

    def flood(self, caller, target, *call, answered=True):
        """The same call so many times, as fast as the bus takes it."""
        message = caller.message(self.bus.target(target), *call, answered=answered)
        for _ in range(FLOOD):
            last = caller.send(message)
        return last

    def test_thousands_of_calls(self):
        deaf = self.connect()
        self.flood(deaf, MENU, "AboutToShow", "i", 0)
        self.flood(deaf, ITEM, "Scroll", "is", 2 ** 31 - 1, "vertical")
        self.assertAnswersSoon()
        deaf.close()
        self.flood(self.caller, MENU, "Event", "isvu", SEPARATOR, "clicked", ZERO, 0, answered=False)
        self.caller.send(self.caller.message(self.bus.target(MENU), "Event", "isvu", GUIDE_ROW, "clicked", ZERO, 0))
        self.flood(self.caller, MENU, "GetProperty", "is", 1, "label", answered=False)
        self.assertChosenOnce()
        last = self.flood(self.caller, MENU, "GetLayout", "iias", 0, -1, [])
        self.assertAnswersSoon()
        self.caller.answer_to(last)

    def test_giant_lists(self):
        [rows] = self.ask(MENU, "GetGroupProperties", GLib.Variant.new_tuple(numbers([3] * (GIANT // 4)), NO_TEXTS))
        self.assertEqual([number for number, _ in rows], [3])
        self.assertEqual(self.ask(MENU, "EventGroup", clicks([GUIDE_ROW] * 100_000)), [[]])
        self.assertChosenOnce()
        self.assertEqual(self.ask(MENU, "EventGroup", clicks([1, *[77] * 100_000, *[*range(1000, 5000)] * 2])),
                         [[77, *range(1000, 5000)]])
        names = GLib.Variant.new_strv([f"{number:x}" for number in range(GIANT // 12)])
        self.ask(MENU, "GetLayout", GLib.Variant.new_tuple(ZERO, GLib.Variant("i", -1), names))
        absent = numbers(range(1000, 1000 + GIANT // 4))
        self.assertEqual(self.ask(MENU, "GetGroupProperties", GLib.Variant.new_tuple(absent, NO_TEXTS)), [[]])
        self.assertRefused(MENU, "AboutToShowGroup", GLib.Variant.new_tuple(absent))


if __name__ == "__main__":
    isolation.main()
