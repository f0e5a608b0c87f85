"""A session bus: that there is one client on it, and what it does when the bus is not there or hangs."""

import time
import unittest

from support import isolation
from desktop.bus import CLIENT, ITEM, Bus
from desktop.session import CONNECTED, Session, running, wait_for_end

STOP_LIMIT = 8.0
SLACK = 5.0

REPORTING = """
echo "$1 asked" > "$HOME/events"
echo '[OK] Mac service: 好'
"""


class OnABus(unittest.TestCase):
    def setUp(self):
        self.session = Session(self)
        self.bus = Bus(self.session)
        self.traffic = self.bus.monitor()
        self.addCleanup(self.traffic.close)


class OnlyOne(unittest.TestCase):
    def test_a_start_without_the_bus_finds_the_one_on_it(self):
        self.session = Session(self)
        self.bus = Bus(self.session)
        self.session.backend("refresh")
        services = self.session.services()
        first = self.session.terminal()
        self.assertEqual(first.checked().status, CONNECTED)
        self.assertEqual(self.session.run("--terminal", environment={"DBUS_SESSION_BUS_ADDRESS": ""}), (0, "", ""))
        self.assertEqual(first.next_menu().status, CONNECTED)
        self.bus.stop()
        self.assertEqual(self.session.run("--terminal"), (0, "", ""))
        self.assertEqual(first.next_menu().status, CONNECTED)
        self.assertLessEqual(set(services), set(running()))
        self.assertEqual(first.quit(), 0)


class FailingBus(OnABus):
    def setUp(self):
        super().setUp()
        self.session.stub_backend(REPORTING)

    def test_the_item_comes_back_with_the_bus(self):
        client = self.session.start()
        self.traffic.wait_for_status(CONNECTED)
        for _ in range(2):
            self.bus.stop()
            self.bus.start()
            self.bus.wait_for_owner(CLIENT)
            self.assertEqual(self.bus.rows()[2]["label"], CONNECTED)
            self.assertEqual(self.bus.get(ITEM, "ToolTip")[2], "Kestrune · 已連線 · 未配置")
            self.assertNotEqual(self.bus.get(ITEM, "IconPixmap"), [])
        self.assertEqual(client.end(), 0)

    def test_a_bus_that_comes_later_gets_the_item(self):
        self.bus.stop()
        client = self.session.start()
        client.complained("no session bus (Connection refused)")
        self.assertEqual(self.session.events.next(), "status asked")
        self.bus.start()
        self.bus.wait_for_owner(CLIENT)
        self.assertEqual(list(self.bus.rows()), list(range(1, 30)))
        self.assertEqual(client.end(), 0)

    def test_without_its_bus_it_goes_on_and_stops_the_backend_at_its_end(self):
        self.session = Session(self)
        self.bus = Bus(self.session)
        self.session.backend("refresh")
        services = self.session.services()
        client = self.session.terminal()
        self.assertEqual(client.checked().status, CONNECTED)
        self.bus.stop()
        client.complained("no session bus (Connection refused)")
        client.type("")
        self.assertEqual(client.next_menu().status, CONNECTED)
        self.assertEqual(client.quit(), 0)
        for pid in services:
            wait_for_end(pid)

    def test_a_bus_that_hangs_at_the_start_holds_nothing_up(self):
        self.bus.freeze()
        client = self.session.terminal()
        self.assertEqual(client.checked().status, CONNECTED)
        self.bus.thaw()
        self.bus.wait_for_owner(CLIENT)
        self.assertEqual(client.quit(), 0)
        self.assertEqual(client.errors.all(), "")

    def test_a_bus_that_hangs_later_holds_nothing_up(self):
        self.session = Session(self)
        self.bus = Bus(self.session)
        self.session.backend("refresh")
        services = self.session.services()
        client = self.session.terminal()
        self.assertEqual(client.checked().status, CONNECTED)
        self.bus.freeze()
        client.type("")
        self.assertEqual(client.next_menu().status, CONNECTED)
        begin = time.monotonic()
        self.assertEqual(client.quit(), 0)
        self.assertLess(time.monotonic() - begin, STOP_LIMIT + SLACK)
        for pid in services:
            wait_for_end(pid, SLACK)


if __name__ == "__main__":
    isolation.main()
