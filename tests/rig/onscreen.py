"""Tests of the tray face (the user interface in the tray) on a Desk. Windows are read and pressed over AT-SPI."""

import unittest

from rig.client import Window
from rig.desk import Desk
from rig.processes import end_process, processes_of, wait_for_end
from rig.session import COUNTING_BACKEND, SWITCHED_OFF, counted


class OnScreen(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.session = Desk(cls)
        cls.bus, cls.screen, cls.reader = cls.session.bus, cls.session.screen, cls.session.reader
        cls.traffic = cls.bus.monitor()
        # This fake systemctl prints nothing and succeeds, like the real one when it stops a loaded unit.
        cls.session.program("systemctl", "exit 0\n")
        cls.session.program("xdg-open", 'echo "$# $1" > "$HOME/events"\n')
        cls.session.find_programs_first()

    @classmethod
    def start(cls, switched_off=False, **options):
        """Starts a client with the counting backend, and waits until the client runs no more commands by itself."""
        cls.session.stub_backend(COUNTING_BACKEND)
        if switched_off:
            cls.session.prefer(SWITCHED_OFF)
        cls.client = cls.session.start(**options)
        cls.bus.wait_for_client()
        if not switched_off:
            cls.traffic.wait_for_label(*counted(2))
            cls.session.wait_for_start()

    @classmethod
    def end_windows(cls):
        """Ends all windows: a window that a failing test has left open would disturb the next tests."""
        for pid in cls.windows():
            end_process(pid)

    def window(self, title):
        return self.reader.window(title)

    def read(self, title):
        """Waits for the window with this title. Returns the texts of the window, and the window."""
        window = self.window(title)
        self.assertEqual(window.names("push button"), ["好"])
        [sign] = window.names("graphic")
        return Window(*window.names("label"), warns={"警告": True, "訊息": False}[sign]), window

    def choose(self, window, button="好"):
        pid = window.pid()
        window.find("push button", button).press()
        wait_for_end(pid)

    def assertShows(self, expected):
        """Waits for the window, compares its texts, and closes the window."""
        shown, window = self.read(expected.title)
        self.assertEqual(shown, expected)
        self.choose(window)

    def labels(self, *numbers):
        rows = self.bus.rows()
        return [rows[number]["label"] for number in numbers]

    @staticmethod
    def windows():
        """Returns the ids of the processes that show windows."""
        return processes_of("KestruneMenuDialogs")
