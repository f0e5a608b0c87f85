"""A session with a screen and a screen reader, and KestruneMenuDialogs in it."""

import json
import os
import select
import subprocess
import unittest

from rig.accessibility import ScreenReader
from rig.asked import VERSION, title_of
from rig.bus import Bus
from rig.display import Screen
from rig.session import BUILD, Session
from rig.waiting import PATIENCE, Deadline

PROGRAM = BUILD / "KestruneMenuDialogs"


class Desk(Session):
    def __init__(self, test, **screen):
        super().__init__(test)
        # Qt 6.8 warns when the screen reader asks for a menu that has just been closed.
        self.environment["QT_LOGGING_RULES"] = "qt.accessibility.atspi.warning=false"
        self.bus = Bus(self)
        self.screen = Screen(self, **screen)
        self.reader = ScreenReader(self)

    def dark_kde(self):
        """Returns the environment of a KDE desktop with dark colours. Qt reads them from the file kdeglobals."""
        (self.config / "kdeglobals").write_text("".join(
            f"[Colors:{part}]\nBackgroundNormal=35,38,41\nForegroundNormal=252,252,252\n"
            for part in ("Button", "Selection", "Tooltip", "View", "Window")))
        return {"XDG_CURRENT_DESKTOP": "KDE", "KDE_SESSION_VERSION": "5"}


class OnDesk(unittest.TestCase):
    """Base class for tests that share a desk and start KestruneMenuDialogs on it."""

    width, height = 1280, 900

    @classmethod
    def setUpClass(cls):
        cls.desk = Desk(cls, width=cls.width, height=cls.height)
        cls.screen, cls.reader = cls.desk.screen, cls.desk.reader

    def opened(self, *requests, name=None, environment=None):
        """Starts the program and shows these windows. Returns the program and the last window."""
        program = self.start(environment=environment)
        program.show(*requests)
        return program, program.window(name or title_of(requests[-1]))

    def assertEnds(self, program, *events):
        for event in events:
            self.assertEqual(program.event(), event)
        self.assertEqual(program.status(), 0)
        self.assertEqual(program.complaint(), "")

    def assertOnScreen(self, *nodes):
        for node in nodes:
            left, top, wide, high = node.place()
            self.assertTrue(0 <= left <= left + wide <= self.width, f"{node} at {node.place()}")
            self.assertTrue(0 <= top <= top + high <= self.height, f"{node} at {node.place()}")

    def start(self, *arguments, **options):
        program = Program(self.desk, *arguments, **options)
        self.addCleanup(program.close)
        return program


class Program:
    """A running KestruneMenuDialogs. The test takes the place of the client. If `through` is given, this other program
    starts KestruneMenuDialogs."""

    def __init__(self, desk, *arguments, through=(), **options):
        self.process = desk.spawn(*through, PROGRAM, *arguments, **{
            "stdin": subprocess.PIPE, "stdout": subprocess.PIPE, "stderr": subprocess.PIPE, **options})
        self.desk = desk
        self.begun = b""

    def close(self):
        self.process.kill()
        self.process.wait()
        for stream in (self.process.stdin, self.process.stdout, self.process.stderr):
            if stream:
                stream.close()

    def send(self, *requests):
        for request in requests:
            line = json.dumps({"version": VERSION, **request}).encode() + b"\n"
            while line:
                line = line[self.process.stdin.write(line):]

    def event(self):
        """Waits for the next event and returns it. Returns None at the end of the output."""
        deadline = Deadline()
        while b"\n" not in self.begun:
            if not select.select([self.process.stdout], [], [], deadline.left())[0]:
                raise AssertionError(f"no event within {PATIENCE:g} s")
            piece = os.read(self.process.stdout.fileno(), 65536)
            if not piece:
                assert not self.begun, self.begun
                return None
            self.begun += piece
        line, _, self.begun = self.begun.partition(b"\n")
        event = json.loads(line)
        assert event.pop("version") == VERSION, event
        return event

    def show(self, *requests):
        """Sends the requests, and waits until all their windows are shown."""
        self.send(*requests)
        for request in requests:
            shown = self.event()
            assert shown == {"shown": {"id": request.get("showAlert", {}).get("id", 0)}}, shown

    def window(self, name):
        """Waits until the window with this name has the keyboard, and returns it."""
        return self.desk.reader.window(name, self.process.pid)

    def end_input(self):
        self.process.stdin.close()

    def status(self):
        """Waits for the end of the program, and returns its exit status. Fails if an event is left."""
        left = self.event()
        assert left is None, left
        return self.process.wait(PATIENCE)

    def complaint(self):
        """Waits for the end of the program, and returns its standard error."""
        return self.process.stderr.read().decode()
