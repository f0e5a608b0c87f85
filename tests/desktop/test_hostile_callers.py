"""Callers on the session bus that send the client far too much."""

import struct
import time
import unittest

from gi.repository import GLib

from rig import isolation
from rig.bus import CLIENT, ITEM, MENU, Bus
from rig.processes import memory
from rig.session import SWITCHED_OFF, Session
from rig.windows import GUIDE_TITLE
from rig.wire import Connection, Peer, Refused, answers

SEPARATOR, GUIDE_ROW, QUIT_ROW = 12, 24, 29

ZERO = GLib.Variant("i", 0)

GIANT = 2 << 20  # bytes
FLOOD = 1000  # calls
PEAK, GROWTH = 256 << 20, 40 << 20  # bytes; the growth may be memory of a giant call that malloc keeps
SOON = 5.0  # seconds

NO_TEXTS = GLib.Variant("as", [])


def numbers(values):
    data = struct.pack(f"={len(values)}i", *values)
    return GLib.Variant.new_from_bytes(GLib.VariantType("ai"), GLib.Bytes(data), True)


def clicks(rows):
    """Returns the body of an EventGroup call that clicks on these rows."""
    events = {row: GLib.Variant("(isvu)", (row, "clicked", ZERO, 0)) for row in set(rows)}
    return GLib.Variant.new_tuple(GLib.Variant.new_array(None, [events[row] for row in rows]))


class Hostile(unittest.TestCase):
    def setUp(self):
        self.session = Session(self)
        # While auto-connect is off, the client runs no command by itself.
        self.session.prefer(SWITCHED_OFF)
        self.session.stub_backend('echo "$1 asked" > "$HOME/events"\n')
        self.bus = Bus(self.session)
        self.daemon = Peer(self.bus, "org.freedesktop.Notifications", answers("as", []))
        self.client = self.session.start()
        # The notification is the last thing that happens at a start, so the client is now idle.
        self.daemon.wait_for("Notify")
        self.rows = self.bus.rows()
        self.processes = set(self.session.processes())
        self.before = memory(self.client.pid, "VmRSS")
        self.caller = self.connect()

    def connect(self):
        connection = Connection(self.bus)
        self.session.callback(connection.close)
        return connection

    def ask(self, target, method, signature="", *arguments):
        return self.caller.ask(self.bus.target(target), method, signature, *arguments)

    def guides(self):
        """Returns the number of notifications that clicks on the row GUIDE_ROW have caused."""
        return [arguments[3] for _, arguments, _ in self.daemon.calls("Notify")].count(GUIDE_TITLE)

    def assertAnswersSoon(self):
        """Checks that the client soon answers another caller."""
        begin = time.monotonic()
        self.connect().ask(self.bus.target((CLIENT, "/", "org.freedesktop.DBus.Peer")), "Ping")
        self.assertLess(time.monotonic() - begin, SOON)

    def assertChosenOnce(self):
        self.assertAnswersSoon()
        self.daemon.wait(self.guides, "notification")

    def assertUnchanged(self):
        """Checks that the client is the same as before the calls, and that it quits."""
        self.assertAnswersSoon()
        self.assertEqual(self.guides(), 1)
        self.assertEqual(self.bus.rows(), self.rows)
        self.assertEqual(self.session.events.pending(), [])
        self.assertEqual(set(self.session.processes()), self.processes)
        self.assertLess(memory(self.client.pid, "VmHWM"), PEAK)
        self.assertLess(memory(self.client.pid, "VmRSS") - self.before, GROWTH)
        self.bus.click(QUIT_ROW)
        self.assertEqual(self.client.status(), 0)

    def flood(self, caller, target, *call, answered=True):
        """Sends the same call FLOOD times, as fast as the bus takes it. Returns the serial number of the last call."""
        message = caller.message(self.bus.target(target), *call, answered=answered)
        for _ in range(FLOOD):
            last = caller.send(message)
        return last

    def test_floods_of_calls(self):
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
        self.assertUnchanged()

    def test_giant_lists(self):
        [rows] = self.ask(MENU, "GetGroupProperties", GLib.Variant.new_tuple(numbers([3] * (GIANT // 4)), NO_TEXTS))
        self.assertEqual([number for number, _ in rows], [3])
        self.assertEqual(self.ask(MENU, "EventGroup", clicks([GUIDE_ROW] * 30_000)), [[]])
        self.assertChosenOnce()
        self.assertEqual(self.ask(MENU, "EventGroup", clicks([1, *[77] * 30_000, *[*range(1000, 5000)] * 2])),
                         [[77, *range(1000, 5000)]])
        names = GLib.Variant.new_strv([f"{number:x}" for number in range(GIANT // 12)])
        self.ask(MENU, "GetLayout", GLib.Variant.new_tuple(ZERO, GLib.Variant("i", -1), names))
        absent = numbers(range(1000, 1000 + GIANT // 4))
        self.assertEqual(self.ask(MENU, "GetGroupProperties", GLib.Variant.new_tuple(absent, NO_TEXTS)), [[]])
        with self.assertRaises(Refused):
            self.ask(MENU, "AboutToShowGroup", GLib.Variant.new_tuple(absent))
        self.assertUnchanged()


isolation.main()
