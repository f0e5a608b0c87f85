"""The tray face on a screen of the test's own: its windows are read and pressed as a screen reader does it."""

import unittest
from pathlib import Path

from desktop.bus import CLIENT, Bus
from desktop.session import COUNTING_BACKEND, Session, Window, counted, running, wait_for_end
from desktop.xfce import Screen
from support.accessibility import ScreenReader


YOUNG = 8.0  # seconds; what is left until the first tick is enough for any test


class OnScreen(unittest.TestCase):
    client = None

    @classmethod
    def setUpClass(cls):
        cls.session = Session(cls)
        cls.bus = Bus(cls.session)
        cls.traffic = cls.bus.monitor()
        cls.addClassCleanup(cls.traffic.close)
        cls.screen = Screen(cls.session)
        cls.addClassCleanup(cls.screen.close)
        cls.session.environment.update({"GSETTINGS_BACKEND": "memory", "NO_AT_BRIDGE": "1", "QT_ACCESSIBILITY": "1",
                                        "QT_LINUX_ACCESSIBILITY_ALWAYS_ON": "1"})
        # Says nothing, as one that knows the units that it is to stop.
        cls.session.program("systemctl", "exit 0\n")
        cls.reader = ScreenReader(cls.session)

    @classmethod
    def start(cls, **options):
        """A client with the counting backend, which has been asked for all that a start asks for."""
        cls.session.stub_backend(COUNTING_BACKEND)
        cls.client = cls.session.start(**options)
        cls.traffic.wait_for_label(*counted(2))
        cls.session.wait_for_start()

    @classmethod
    def start_in_time(cls, **options):
        """Such a client, which is not about to ask the backend of its own accord: it does so 20 seconds after its
        start, and what it asks would count among what a test asks for."""
        if cls.client and cls.client.age() < YOUNG:
            return
        if cls.client:
            assert cls.client.end() == 0
            (cls.session.home / "count").unlink()
            # Nor does what the one before has said count for this one.
            cls.traffic.close()
            cls.traffic = cls.bus.monitor()
            cls.addClassCleanup(cls.traffic.close)
        cls.start(**options)

    @classmethod
    def start_switched_off(cls, **options):
        """A client with the counting backend, which asks it for nothing by itself."""
        cls.session.prefer('{"autoConnectEnabled": false}')
        cls.session.stub_backend(COUNTING_BACKEND)
        cls.client = cls.session.start(**options)
        cls.bus.wait_for_owner(CLIENT)

    @classmethod
    def start_with_services(cls):
        cls.session.backend("refresh")
        cls.session.note_commands(counting=True)
        cls.client = cls.session.start()
        cls.traffic.wait_for_label(*counted(2))
        cls.session.wait_for_start()

    def window(self, title):
        """The window of that title, once it has the keyboard."""
        def active():
            return next((window for application in self.reader.applications() for window in application.children()
                         if window.name() == title and "active" in window.states()), None)
        return self.reader.wait(active, f"active window “{title}”")

    def read(self, title):
        """What the window of that title shows, beside the window itself."""
        window = self.window(title)
        self.assertEqual(window.names("push button"), ["好"])
        [sign] = window.names("graphic")
        return Window(*window.names("label"), warns={"警告": True, "訊息": False}[sign]), window

    def close(self, window):
        pid = window.pid()
        window.find("push button", "好").press()
        wait_for_end(pid)

    def assertShows(self, expected):
        """That window opens; it is closed by its button."""
        shown, window = self.read(expected.title)
        self.assertEqual(shown, expected)
        self.close(window)

    def assertOpens(self, row, expected):
        self.bus.click(row)
        self.assertShows(expected)

    def assertAsked(self, *commands):
        self.assertEqual([self.session.events.next() for _ in commands], [f"{each} asked" for each in commands])

    def reports(self):
        """How many the backend has made."""
        return (self.session.home / "count").read_text().count("\n")

    def assertReconnects(self):
        """What a reconnect asks for is asked for, and reported. The timer may ask before and after that."""
        while self.session.events.next() != "refresh asked":
            pass
        self.assertAsked("status")
        self.traffic.wait_for_label(*counted(self.reports()))

    def labels(self, *numbers):
        rows = self.bus.rows()
        return [rows[number]["label"] for number in numbers]

    def mark(self, number):
        return bool(self.bus.rows()[number]["toggle-state"])

    @staticmethod
    def windows():
        """Ids of the processes that show windows."""
        return [pid for pid in running() if Path(f"/proc/{pid}/exe").resolve().name == "KestruneMenuDialogs"]
