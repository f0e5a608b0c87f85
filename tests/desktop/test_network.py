"""Tests how the client reacts when a network cable is plugged in or pulled out."""

import socket
import subprocess
import unittest
from pathlib import Path

from rig import isolation
from rig.bus import Bus
from rig.client import CONNECTED, RECONNECTING
from rig.session import COUNTING_BACKEND, Session
from rig.waiting import PATIENCE

WIRED = "目前網路：有線網路已連線"
NONE = "目前網路：網路未連線"

LINK_GROUP = 1  # the rtnetlink group that reports changes of interfaces

NEWS = ["Kestrune 網路已變更", "已自動嘗試重新連接本地服務與反向隧道。"]


class Cable(unittest.TestCase):
    def setUp(self):
        # Mounts a new /sys, because the old one shows the devices of the machine, not those of this namespace.
        subprocess.run(["mount", "-t", "sysfs", "sysfs", "/sys"], check=True)
        self.change("up", *isolation.CABLE)
        self.session = Session(self)
        self.session.stub_backend(COUNTING_BACKEND)
        self.bus = Bus(self.session)
        self.traffic = self.bus.monitor()
        self.told = 0

    @staticmethod
    def change(state, *commands):
        """Runs these commands of ip(8), and waits until the cable has this state."""
        with socket.socket(socket.AF_NETLINK, socket.SOCK_RAW, socket.NETLINK_ROUTE) as news:
            news.bind((0, LINK_GROUP))
            news.settimeout(PATIENCE)
            for words in commands:
                subprocess.run(["ip", *words.split()], check=True)
            while Path("/sys/class/net/cable/operstate").read_text() != state + "\n":
                news.recv(65536)

    def plug(self):
        self.change("up", "link set wall up")

    def pull(self):
        self.change("lowerlayerdown", "link set wall down")

    def assertReconnects(self, network):
        """Checks that one reconnect and one notification follow. Skips checks of the backend before the reconnect."""
        self.assertEqual(self.client.menu_with(2, RECONNECTING).rows[10].title, network)
        while self.session.events.next() != "refresh asked":
            pass
        self.assertEqual(self.session.events.next(), "status asked")
        self.assertEqual(self.client.menu_with(2, CONNECTED).rows[10].title, network)
        self.told += 1
        # No daemon shows the notification, but the client does not know this and sends it.
        self.assertEqual(self.traffic.wait_for("Notify", count=self.told)[3:5], NEWS)

    def test_each_lasting_change_leads_to_one_reconnect_and_one_notification(self):
        self.client = self.session.terminal()
        self.assertReconnects(WIRED)
        self.pull()
        self.plug()
        # This loss lasts, so it must lead to the next reconnect. If the short interruption above caused a reconnect,
        # that one would come first.
        self.pull()
        self.assertReconnects(NONE)
        self.plug()
        self.assertReconnects(WIRED)
        self.assertEqual(self.client.quit(), 0)
        self.assertEqual(self.client.errors.all(), "")
        self.assertEqual([menu.rows[10].title for menu in self.client.menus() if menu.status == RECONNECTING],
                         [WIRED, NONE, WIRED])
        self.assertNotIn("refresh asked", self.session.events.pending())
        self.assertEqual(len(self.traffic.said("Notify")), self.told)


isolation.main()
