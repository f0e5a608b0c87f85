"""What keeps the machine awake, with a real login manager that lists it."""

import signal
import time
import unittest

from rig import isolation
from rig.bus import SystemBus
from rig.client import CONNECTED, NO_BUS
from rig.logind import LOGIN, start_login_manager
from rig.session import COUNTING_BACKEND, Session, counted

REASON = "Kestrune keeps Mac awake for the mobile bridge"
SOON = 12.0  # seconds; far less than the 25 that a call may take on a bus

HELD, NOT_HELD = "保持喚醒：已開啟", "保持喚醒：已關閉"


class Awake(unittest.TestCase):
    def setUp(self):
        self.session = Session(self)
        self.session.program("systemctl", "exit 0\n")
        self.session.stub_backend(COUNTING_BACKEND)
        self.bus = SystemBus(self.session)
        self.start_login_manager()
        self.traffic = self.bus.monitor()
        self.releases = 0
        self.start()

    def start_login_manager(self):
        self.login = start_login_manager(self.session, self.bus)

    def kill_login_manager(self):
        self.login.kill()
        self.login.wait()

    def start(self):
        self.client = self.session.terminal()
        menu = self.client.menu_with(*counted(2))
        self.assertEqual(menu.rows[11].title, HELD)
        self.session.wait_for_start()
        self.assertHeld()

    def inhibited(self):
        """What the login manager has told of what is held up, one after the other."""
        return [changed["BlockInhibited"]
                for _, changed, _ in self.traffic.said("PropertiesChanged", lambda data: "BlockInhibited" in data[1])]

    def inhibitors(self):
        return self.bus.call(LOGIN, "ListInhibitors")[0]

    def assertHeld(self):
        """For the screen and for the system."""
        self.assertEqual([each[:4] + each[5:] for each in self.inhibitors()],
                         [("idle", "Kestrune", REASON, "block", self.client.pid)] * 2)

    def assertReleased(self):
        self.releases += 1
        self.traffic.wait(lambda: self.inhibited().count("") == self.releases, "release")
        self.assertEqual(self.inhibited()[-1], "")
        self.assertEqual(self.inhibitors(), [])

    def press(self, key, *row, holds=False):
        """Types the key, closes its window, and reads the menu in which that row says so."""
        self.client.type(key)
        self.client.next_window()
        self.client.type("1")
        self.menu = self.client.menu_with(*row)
        self.assertEqual(self.menu.rows[11].title, HELD if holds else NOT_HELD)

    def test_it_is_held_while_both_switches_are_on_and_the_backend_works(self):
        self.press("k", 2, "🟡 連線狀態：保持喚醒已關閉")
        self.assertReleased()
        self.press("k", 2, "🟡 連線狀態：保持喚醒已開啟", holds=True)
        self.assertHeld()
        self.press("a", 18, "立即重新檢查連線")
        self.assertReleased()
        self.press("k", 2, "🔴 連線狀態：保持喚醒已關閉")
        self.press("k", 2, "🔴 連線狀態：保持喚醒已開啟")
        self.assertEqual(self.inhibitors(), [])
        self.press("a", *counted(3), holds=True)
        self.assertHeld()
        failing = self.session.home / "failing"
        failing.touch()
        self.press("s", *counted(5))
        self.assertReleased()
        failing.unlink()
        self.press("s", *counted(7), holds=True)
        self.assertEqual(self.menu.status, CONNECTED)
        self.assertHeld()
        self.press("x", 18, "立即重新檢查連線")
        self.assertReleased()
        self.assertEqual(self.client.quit(), 0)
        self.assertEqual(self.client.errors.all(), NO_BUS)
        # Nothing is left of one that is killed either.
        (self.session.home / "count").unlink()
        self.session.events.forget()
        self.session.prefer("{}")
        self.start()
        self.assertEqual(self.client.end(signal.SIGKILL), -signal.SIGKILL)
        self.assertReleased()

    def test_a_login_manager_that_hangs_or_is_killed_holds_nothing_up_and_is_followed_by_the_next(self):
        self.kill_login_manager()
        so_far = len(self.traffic.said("Inhibit"))
        self.start_login_manager()
        self.traffic.wait_for("Inhibit", count=so_far + 2)
        # The last of them is answered before anything that is asked now.
        self.assertHeld()
        self.login.send_signal(signal.SIGSTOP)
        begin = time.monotonic()
        self.press("k", 2, "🟡 連線狀態：保持喚醒已關閉")
        self.press("k", 2, "🟡 連線狀態：保持喚醒已開啟")
        self.press("s", *counted(4))
        self.assertLess(time.monotonic() - begin, SOON)
        # What it grants when it goes on, the client was told that it had not got.
        changes = len(self.inhibited())
        self.login.send_signal(signal.SIGCONT)
        self.traffic.wait(lambda: self.inhibited()[changes:][-1:] == [""], "release")
        self.assertEqual(self.inhibitors(), [])
        self.kill_login_manager()
        self.start_login_manager()
        self.press("s", *counted(6), holds=True)
        self.assertEqual(self.menu.status, CONNECTED)
        self.assertHeld()
        self.assertEqual(self.client.quit(), 0)


if __name__ == "__main__":
    isolation.main()
