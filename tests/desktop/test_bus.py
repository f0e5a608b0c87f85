"""A session bus: that there is one client on it, and what it does when the bus is not there or hangs."""

import signal
import time
import unittest

from desktop import isolation
from desktop.bus import CLIENT, ITEM, Bus
from desktop.session import CONNECTED, Session, wait_for_end

STOP_LIMIT = 8.0
BUS_LIMIT = 2.0
SLACK = 5.0

SILENT_BUS = "KestruneMenuClient: the session bus does not answer\n"

REPORTING = """
echo "$1 asked" > "$HOME/events"
echo '[OK] Mac service: 好'
"""

# Runs at the end of the stop, twice.
HELD_UP_STOP = """
echo "stopping" > "$HOME/events"
read -r < "$HOME/gate"
"""


class OnABus(unittest.TestCase):
    def setUp(self):
        self.session = Session(self)
        self.bus = Bus(self.session)
        self.traffic = self.bus.monitor()
        self.addCleanup(self.traffic.close)


class OnlyOne(OnABus):
    def setUp(self):
        super().setUp()
        self.session.stub_backend(REPORTING)

    def test_a_second_start_tells_the_first_and_ends(self):
        first = self.session.terminal()
        self.assertEqual(first.checked().status, CONNECTED)
        self.assertEqual(self.session.run("--terminal"), (0, "", ""))
        self.traffic.wait("Activate")
        self.assertEqual(first.next_menu().status, CONNECTED)
        # The other face is another start of the same program.
        self.assertEqual(self.session.run(), (0, "", ""))
        self.assertEqual(first.next_menu().status, CONNECTED)
        self.assertEqual(first.quit(), 0)
        self.assertEqual(first.errors.all(), "")

    def test_a_second_start_ends_beside_one_that_hangs(self):
        first = self.session.terminal()
        self.assertEqual(first.checked().status, CONNECTED)
        first.send(signal.SIGSTOP)
        self.assertEqual(self.session.run("--terminal"), (0, "", ""))
        first.send(signal.SIGCONT)
        self.assertEqual(first.next_menu().status, CONNECTED)
        self.assertEqual(first.quit(), 0)

    def test_one_that_was_killed_is_not_in_the_way(self):
        first = self.session.start()
        self.traffic.wait_for_status(CONNECTED)
        self.assertEqual(first.end(signal.SIGKILL), -signal.SIGKILL)
        second = self.session.terminal()
        self.assertEqual(second.checked().status, CONNECTED)
        self.assertEqual(second.quit(), 0)

    def test_the_successor_waits_until_the_first_has_gone(self):
        self.session.program("lsof", HELD_UP_STOP)
        first = self.session.terminal()
        self.assertEqual(first.checked().status, CONNECTED)
        self.session.wait_for_start()
        successor = self.session.terminal(environment={"KESTRUNE_MENU_CLIENT_RELAUNCH": "1"})
        self.traffic.wait("RequestName", lambda _: len(self.traffic.said("RequestName")) == 2)
        first.type("q")
        self.assertEqual(self.session.events.next(), "stopping")
        # As long as a whole start takes, the successor has had the time to be too early.
        other = self.session.terminal()
        self.traffic.wait("NameHasOwner")
        self.session.gate.open()
        self.assertEqual(self.session.events.next(), "stopping")
        self.session.gate.open()
        self.assertEqual(first.status(), 0)
        self.session.wait_for_start()
        self.assertEqual(successor.checked().status, CONNECTED)
        self.assertEqual(other.status(), 0)
        self.assertEqual(other.menus(), [])
        successor.type("q")
        for _ in range(2):
            self.assertEqual(self.session.events.next(), "stopping")
            self.session.gate.open()
        self.assertEqual(successor.status(), 0)


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

    def test_a_bus_that_hangs_at_the_start_counts_as_none(self):
        self.bus.freeze()
        client = self.session.terminal()
        self.assertEqual(client.checked().status, CONNECTED)
        self.assertLess(client.age(), BUS_LIMIT + SLACK)
        client.complained(SILENT_BUS)
        self.assertEqual(client.errors.so_far, SILENT_BUS)
        self.assertEqual(self.session.run("--terminal"), (0, "", SILENT_BUS))
        self.assertEqual(client.next_menu().status, CONNECTED)
        self.bus.thaw()
        self.bus.wait_for_owner(CLIENT)
        self.assertEqual(client.quit(), 0)

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
