"""Tests the client with a tray and a notification daemon that are faulty or killed."""

import time
import unittest

from gi.repository import GLib

from rig import isolation
from rig.bus import CLIENT, Bus
from rig.session import COUNTING_BACKEND, Session
from rig.wire import Peer, answers, dies, does, refuses

WATCHER, REGISTER = "org.kde.StatusNotifierWatcher", "RegisterStatusNotifierItem"
DAEMON, ASK = "org.freedesktop.Notifications", "GetCapabilities"
GUIDE_ROW = 24
SOON = 8.0  # seconds; the timeout of a D-Bus call is 25

# Faults of the owner of a bus name, and how it then answers a call. None: it does not answer.
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


class Peers(unittest.TestCase):
    def setUp(self):
        self.session = Session(self)
        self.session.stub_backend(COUNTING_BACKEND)
        self.bus = Bus(self.session)
        self.client = self.session.start()
        self.session.wait_for_start()

    def serve(self, name, behaviour, method, click=False):
        """Starts an owner of the bus name, waits until the client calls its method, and kills it. Returns the arguments
        of the call. `click`: whether to click first on a row that makes the client show a notification."""
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
        for fault, behaviour in FAULTS.items():
            with self.subTest(fault):
                self.serve(WATCHER, behaviour, REGISTER)
                self.assertEqual(self.serve(WATCHER, answers(), REGISTER), ["/StatusNotifierItem"])
                self.serve(DAEMON, behaviour, ASK, click=True)
                self.serve(DAEMON, answers("as", ["body"]), "Notify", click=True)
        self.assertEqual(self.client.end(), 0)


isolation.main()
