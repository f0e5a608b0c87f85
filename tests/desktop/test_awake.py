"""Tests of the inhibitors that keep the machine awake, as a real systemd-logind lists them."""

import signal
import unittest

from rig import isolation
from rig.bus import SystemBus
from rig.client import NO_BUS
from rig.logind import LOGIN, start_login_manager
from rig.session import COUNTING_BACKEND, Session, counted

REASON = "Kestrune keeps Mac awake for the mobile bridge"
HELD, NOT_HELD = "保持喚醒：已開啟", "保持喚醒：已關閉"


class Awake(unittest.TestCase):
    def setUp(self):
        self.session = Session(self)
        self.session.program("systemctl", "exit 0\n")
        self.session.stub_backend(COUNTING_BACKEND)
        self.bus = SystemBus(self.session)
        start_login_manager(self.session, self.bus)
        self.traffic = self.bus.monitor()
        self.releases = 0
        self.client = self.session.terminal()
        self.assertEqual(self.client.menu_with(*counted(2)).rows[11].title, HELD)
        self.session.wait_for_start()
        self.assertHeld()

    def inhibitors(self):
        return self.bus.call(LOGIN, "ListInhibitors")[0]

    def assertHeld(self):
        """Checks that the client holds two inhibitors, one for the screen and one for the system."""
        self.assertEqual([each[:4] + each[5:] for each in self.inhibitors()],
                         [("idle", "Kestrune", REASON, "block", self.client.pid)] * 2)

    def assertReleased(self):
        def all_released():
            told = [changed["BlockInhibited"] for _, changed, _ in self.traffic.said("PropertiesChanged")
                    if "BlockInhibited" in changed]
            return told.count("") == self.releases and told[-1] == ""
        self.releases += 1
        self.traffic.wait(all_released, "release")
        self.assertEqual(self.inhibitors(), [])

    def press(self, key, *row, holds=False):
        """Types the key, closes the dialogue that opens, and waits for a menu with this row (number and title).
        `holds`: whether that menu must say that the machine is kept awake."""
        self.client.type(key)
        self.client.next_window()
        self.client.type("1")
        menu = self.client.menu_with(*row)
        self.assertEqual(menu.rows[11].title, HELD if holds else NOT_HELD)

    def test_inhibitors_are_held_while_the_preference_is_on_and_the_connection_is_kept(self):
        self.press("k", 2, "🟡 連線狀態：保持喚醒已關閉")
        self.assertReleased()
        self.press("k", 2, "🟡 連線狀態：保持喚醒已開啟", holds=True)
        self.assertHeld()
        self.press("x", 18, "立即重新檢查連線")
        self.assertReleased()
        self.assertEqual(self.client.quit(), 0)
        self.assertEqual(self.client.errors.all(), NO_BUS)

    def test_inhibitors_end_when_the_client_is_killed(self):
        self.assertEqual(self.client.end(signal.SIGKILL), -signal.SIGKILL)
        self.assertReleased()


if __name__ == "__main__":
    isolation.main()
