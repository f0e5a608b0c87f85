"""What keeps the machine awake, with a real login manager that lists it."""

import signal
import subprocess
import time
import unittest

from support import isolation
from desktop.bus import Bus, SystemBus
from desktop.session import CONNECTED, COUNTING_BACKEND, NO_BUS, Session, counted

LOGIN = "org.freedesktop.login1", "/org/freedesktop/login1", "org.freedesktop.login1.Manager"

# With folders of its own for what it keeps, and without the devices of the machine.
LOGIN_MANAGER = """
mount -t tmpfs tmpfs /run && mkdir -p /run/systemd/logind.conf.d &&
printf '[Login]\\nNAutoVTs=0\\nReserveVT=0\\n' > /run/systemd/logind.conf.d/test.conf &&
exec /lib/systemd/systemd-logind
"""

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
        self.addCleanup(self.traffic.close)
        self.releases = 0

    def start_login_manager(self):
        self.login = self.session.spawn("unshare", "--mount", "sh", "-c", LOGIN_MANAGER,
                                        environment={"SYSTEMD_LOG_TARGET": "console"},
                                        stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.bus.wait_for_owner(LOGIN[0])

    def start(self):
        self.client = self.session.terminal()
        menu = self.client.menu_with(*counted(2))
        self.assertEqual(menu.rows[11].title, HELD)
        self.session.wait_for_start()

    def inhibited(self):
        """What the login manager has told of what is held up, one after the other."""
        return [changed["BlockInhibited"]["data"]
                for _, changed, _ in self.traffic.said("PropertiesChanged", lambda data: "BlockInhibited" in data[1])]

    def inhibitors(self):
        return self.bus.call(LOGIN, "ListInhibitors")[0]

    def assertHeld(self):
        """For the screen and for the system."""
        self.assertEqual([each[:4] + each[5:] for each in self.inhibitors()],
                         [["idle", "Kestrune", REASON, "block", self.client.pid]] * 2)

    def assertReleased(self):
        self.releases += 1
        self.traffic.wait("PropertiesChanged", lambda _: self.inhibited().count("") == self.releases)
        self.assertEqual(self.inhibited()[-1], "")
        self.assertEqual(self.inhibitors(), [])

    def press(self, key, *row, holds=False):
        """Types the key, closes its window, and reads the menu in which that row says so."""
        self.client.type(key)
        self.client.next_window()
        self.client.type("1")
        self.menu = self.client.menu_with(*row)
        self.assertEqual(self.menu.rows[11].title, HELD if holds else NOT_HELD)

    def test_it_is_held_while_both_switches_are_on(self):
        self.start()
        self.assertHeld()
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
        self.press("x", 18, "立即重新檢查連線")
        self.assertReleased()
        self.assertEqual(self.client.quit(), 0)
        self.assertEqual(self.client.errors.all(), NO_BUS)

    def test_a_backend_that_fails_lets_the_machine_sleep(self):
        self.start()
        self.assertHeld()
        failing = self.session.home / "failing"
        failing.touch()
        self.press("s", *counted(4))
        self.assertReleased()
        failing.unlink()
        self.press("s", *counted(6), holds=True)
        self.assertEqual(self.menu.status, CONNECTED)
        self.assertHeld()
        self.assertEqual(self.client.quit(), 0)

    def test_a_login_manager_that_is_killed_is_followed_by_the_next(self):
        self.start()
        for _ in range(2):
            self.assertHeld()
            self.login.kill()
            self.login.wait()
            so_far = len(self.traffic.said("Inhibit"))
            self.start_login_manager()
            self.traffic.wait("Inhibit", lambda _: len(self.traffic.said("Inhibit")) == so_far + 2)
            # The last of them is answered before anything that is asked now.
            self.assertHeld()
        self.login.kill()
        self.login.wait()
        self.press("s", *counted(4))
        self.assertEqual(self.menu.status, CONNECTED)
        self.start_login_manager()
        self.press("s", *counted(6), holds=True)
        self.assertHeld()
        self.assertEqual(self.client.quit(), 0)

    def test_a_login_manager_that_hangs_holds_nothing_up(self):
        self.start()
        self.login.send_signal(signal.SIGSTOP)
        begin = time.monotonic()
        self.press("k", 2, "🟡 連線狀態：保持喚醒已關閉")
        self.press("k", 2, "🟡 連線狀態：保持喚醒已開啟")
        self.press("s", *counted(4))
        self.assertLess(time.monotonic() - begin, SOON)
        # What it grants when it goes on, the client was told that it had not got.
        self.login.send_signal(signal.SIGCONT)
        self.traffic.wait("PropertiesChanged", lambda _: self.inhibitors() == [])
        self.login.kill()
        self.login.wait()
        self.start_login_manager()
        self.press("s", *counted(6), holds=True)
        self.assertHeld()
        self.assertEqual(self.client.quit(), 0)

    def test_nothing_is_left_of_a_client_that_quits_or_is_killed(self):
        Bus(self.session)
        for number, status in ((signal.SIGTERM, 0), (signal.SIGKILL, -signal.SIGKILL)):
            (self.session.home / "count").unlink(missing_ok=True)
            self.start()
            self.assertHeld()
            self.assertEqual(self.client.end(number), status)
            self.assertReleased()


if __name__ == "__main__":
    isolation.main()
