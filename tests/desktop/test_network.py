"""What the client does when the network of the machine changes: a cable that is plugged in and pulled."""

import socket
import subprocess
import unittest
from pathlib import Path

from rig import isolation
from rig.bus import Bus
from rig.client import CONNECTED, DISABLED, RECONNECTING
from rig.session import COUNTING_BACKEND, SWITCHED_OFF, Session, counted
from rig.waiting import PATIENCE

WIRED = "目前網路：有線網路已連線"
NONE = "目前網路：網路未連線"
INTERVAL = 20.0  # of the ticks

# Of netlink.
ROUTE_FAMILY, LINK_GROUP = 0, 1

NEWS = ("Kestrune 網路已變更", "已自動嘗試重新連接本地服務與反向隧道。")
NEWS_WHEN_OFF = ("Kestrune 網路已變更", "目前已停用自動重連；需要時請手動點選「立即重新檢查連線」。")


def ip(words):
    subprocess.run(["ip", *words.split()], check=True)


def setUpModule():
    # That of the machine shows the devices of the machine.
    subprocess.run(["mount", "-t", "sysfs", "sysfs", "/sys"], check=True)


class Cable(unittest.TestCase):
    def setUp(self):
        self.addCleanup(ip, "link delete cable")
        self.change("up", "link add cable type veth peer name wall", "link set wall up", "link set cable up",
                    "address add 192.0.2.2/24 dev cable", "route add default via 192.0.2.1")
        self.session = Session(self)
        self.session.stub_backend(COUNTING_BACKEND)
        self.bus = Bus(self.session)
        self.traffic = self.bus.monitor()
        self.told = 0

    @staticmethod
    def change(state, *commands):
        """Does that to the network, and waits until the kernel says that the cable has come to be in that state."""
        with socket.socket(socket.AF_NETLINK, socket.SOCK_RAW, ROUTE_FAMILY) as news:
            news.bind((0, LINK_GROUP))
            news.settimeout(PATIENCE)
            for words in commands:
                ip(words)
            while Path("/sys/class/net/cable/operstate").read_text() != state + "\n":
                news.recv(65536)

    def plug(self):
        self.change("up", "link set wall up")

    def pull(self):
        self.change("lowerlayerdown", "link set wall down")

    def assertReconnects(self, network):
        """It does so, and tells it. Between two reconnects there may be checks: ticks, or a second look."""
        self.assertEqual(self.client.menu_with(2, RECONNECTING).rows[10].title, network)
        while self.session.events.next() != "refresh asked":
            pass
        self.assertEqual(self.session.events.next(), "status asked")
        menu = self.client.menu_with(2, CONNECTED)
        self.assertEqual(menu.rows[10].title, network)
        self.assertEqual(self.next_notification(), NEWS)
        return menu

    def next_notification(self):
        """Title and text. Nobody is there to show it, which the client does not know."""
        self.told += 1
        return tuple(self.traffic.wait_for("Notify", count=self.told)[3:5])

    def assertNothingElse(self):
        self.assertNotIn("refresh asked", self.session.events.pending())
        self.assertEqual(len(self.traffic.said("Notify")), self.told)

    def reconnects(self):
        """The networks that were answered so."""
        return [menu.rows[10].title for menu in self.client.menus() if menu.status == RECONNECTING]

    def test_each_change_is_told_and_answered_once_but_no_interruption_of_a_moment(self):
        self.client = self.session.terminal()
        self.assertReconnects(WIRED)
        self.pull()
        self.plug()
        # A loss that lasts is told behind anything that the interruption could have brought.
        self.pull()
        self.assertReconnects(NONE)
        self.plug()
        self.assertReconnects(WIRED)
        self.assertEqual(self.client.quit(), 0)
        self.assertEqual(self.client.errors.all(), "")
        self.assertEqual(self.reconnects(), [WIRED, NONE, WIRED])
        self.assertNothingElse()

    def test_another_network_of_the_same_kind_is_only_looked_at(self):
        self.client = self.session.terminal()
        row, settled = counted(2)
        menu = self.assertReconnects(WIRED)
        while menu.rows[row].title != settled:
            menu = self.client.next_menu()
        ip("route replace default via 192.0.2.254")
        self.assertEqual(self.client.menu_with(*counted(3)).status, CONNECTED)
        self.assertEqual(self.session.events.next(), "status asked")
        self.assertLess(self.client.age(), INTERVAL)
        self.assertEqual(self.client.quit(), 0)
        self.assertEqual(self.reconnects(), [WIRED])
        self.assertNothingElse()

    def test_while_it_is_switched_off_a_change_is_told_and_no_command_runs(self):
        self.session.prefer(SWITCHED_OFF)
        self.client = self.session.terminal()
        self.assertEqual(self.client.menu_with(10, WIRED).status, DISABLED)
        self.assertEqual(self.next_notification(), NEWS_WHEN_OFF)
        self.pull()
        self.assertEqual(self.client.menu_with(10, NONE).status, DISABLED)
        self.assertEqual(self.next_notification(), NEWS_WHEN_OFF)
        self.assertEqual(self.client.quit(), 0)
        self.assertNothingElse()
        self.assertFalse((self.session.home / "count").exists())


if __name__ == "__main__":
    isolation.main()
