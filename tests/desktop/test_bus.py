"""Tests the client with a session bus that hangs or refuses match rules."""

import time
import unittest

from rig import isolation
from rig.bus import Bus
from rig.client import CONNECTED
from rig.processes import wait_for_end
from rig.session import SWITCHED_OFF, Session
from rig.wire import DAEMON, Peer, answers

STOP_LIMIT = 8.0
SLACK = 5.0  # seconds that a busy machine may need in addition to a limit

WATCHER, REGISTER = "org.kde.StatusNotifierWatcher", "RegisterStatusNotifierItem"


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


isolation.main()
