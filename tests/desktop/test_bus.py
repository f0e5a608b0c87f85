"""Tests the client with a session bus that hangs or refuses match rules, and with a faulty tray and daemon."""

import time
import unittest

from gi.repository import GLib

from rig import isolation
from rig.bus import CLIENT, Bus
from rig.client import CONNECTED
from rig.processes import wait_for_end
from rig.session import COUNTING_BACKEND, SWITCHED_OFF, Session
from rig.wire import DAEMON, Peer, answers, dies, does, refuses

STOP_LIMIT = 8.0
SOON = 8.0  # seconds; less than the 25 s after which a D-Bus call without an answer fails
SLACK = 5.0  # seconds that a busy machine may need in addition to a limit

WATCHER, REGISTER = "org.kde.StatusNotifierWatcher", "RegisterStatusNotifierItem"
NOTIFIER, ASK = "org.freedesktop.Notifications", "GetCapabilities"
GUIDE_ROW = 24

# Faults that the owner of a bus name may have, and how it answers calls with each fault. None: it answers no call.
FAULTS = {
    "dies before it answers": dies,
    "never answers": None,
    "refuses": refuses("org.example.Error.NotToday"),
    "refuses as the bus would": refuses("org.freedesktop.DBus.Error.NoReply"),
    "answers nothing": answers(),
    "answers a text": answers("s", "好" * 9999),
    "answers many types": answers("a{sv}(xtd)ayg", {"a": GLib.Variant("as", ["b"])}, (-1, 2, 0.5), b"\xff", "ii"),
    "answers an invalid descriptor": answers("h", 0),
    "answers twice": does(answers("d", 1.0), answers("d", 2.0)),
    "answers and dies": does(answers("x", -1), dies),
}


class Buses(unittest.TestCase):
    def setUp(self):
        self.session = Session(self)
        self.bus = Bus(self.session)

    def test_a_hanging_bus_blocks_neither_start_nor_quit(self):
        self.session.backend("refresh")
        services = self.session.services()
        self.bus.freeze()
        client = self.session.terminal()
        self.assertEqual(client.checked().status, CONNECTED)
        self.bus.thaw()
        self.bus.wait_for_client()
        self.bus.freeze()
        client.type("")
        self.assertEqual(client.next_menu().status, CONNECTED)
        begin = time.monotonic()
        self.assertEqual(client.quit(), 0)
        self.assertLess(time.monotonic() - begin, STOP_LIMIT + SLACK)
        wait_for_end(*services, seconds=SLACK)
        self.assertEqual(client.errors.all(), "")

    def test_a_bus_that_refuses_match_rules_is_not_left(self):
        self.session.prefer(SWITCHED_OFF)
        bus = Bus(Session(self), '<limit name="max_match_rules_per_connection">0</limit>')
        tray = Peer(bus, WATCHER, answers())
        client = bus.session.start()
        tray.wait_for(REGISTER)
        [(_, _, name)] = tray.calls(REGISTER)
        for _ in range(1000):
            bus.call((name, "/", "org.freedesktop.DBus.Peer"), "Ping")
        self.assertEqual(len(tray.calls(REGISTER)), 1)
        self.assertTrue(bus.call(DAEMON, "NameHasOwner", "s", name)[0])
        self.assertEqual(client.end(), 0)

    def serve(self, name, behaviour, method, click=False):
        """Starts an owner of the bus name, waits until the client calls its `method`, and kills the owner. Returns the
        arguments of the call. `click`: whether to click first on a row that makes the client notify."""
        peer = Peer(self.bus, name, behaviour)
        if click:
            self.bus.click(GUIDE_ROW)
        arguments = peer.wait_for(method)[0]
        begin = time.monotonic()
        self.bus.call((CLIENT, "/", "org.freedesktop.DBus.Peer"), "Ping")
        self.assertLess(time.monotonic() - begin, SOON)
        peer.kill()
        return arguments

    def test_after_each_fault_the_next_tray_and_daemon_are_used(self):
        self.session.stub_backend(COUNTING_BACKEND)
        client = self.session.start()
        self.session.wait_for_start()
        for fault, behaviour in FAULTS.items():
            with self.subTest(fault):
                self.serve(WATCHER, behaviour, REGISTER)
                self.assertEqual(self.serve(WATCHER, answers(), REGISTER), ["/StatusNotifierItem"])
                self.serve(NOTIFIER, behaviour, ASK, click=True)
                self.serve(NOTIFIER, answers("as", ["body"]), "Notify", click=True)
        self.assertEqual(client.end(), 0)


isolation.main()
