"""A session with a screen and a screen reader, and the program that shows the windows."""

import json
import os
import select
import subprocess
import unittest

from rig.accessibility import ScreenReader
from rig.bus import Bus
from rig.display import Rectangle, Screen
from rig.session import BUILD, Session
from rig.waiting import PATIENCE, Deadline

PROGRAM = BUILD / "KestruneMenuDialogs"
VERSION = 1


class Desk(Session):
    def __init__(self, test, **screen):
        super().__init__(test)
        # Qt 6.8 warns when the screen reader asks for a menu that has just been closed.
        self.environment["QT_LOGGING_RULES"] = "qt.accessibility.atspi.warning=false"
        self.bus = Bus(self)
        self.screen = Screen(self, **screen)
        self.reader = ScreenReader(self)


class OnDesk(unittest.TestCase):
    """Tests that share a desk, and start the program on it."""

    width, height = 1280, 900

    @classmethod
    def setUpClass(cls):
        cls.desk = Desk(cls, width=cls.width, height=cls.height)
        cls.screen, cls.reader = cls.desk.screen, cls.desk.reader

    def colours(self, *place):
        """The colours in a part of the screen."""
        return self.screen.picture(Rectangle(*place)).pixels()

    def program(self, *arguments, **options):
        program = Program(self.desk, *arguments, **options)
        self.addCleanup(program.__exit__)
        return program


class Program:
    """The program that shows the windows, spoken to as the client does."""

    def __init__(self, desk, *arguments, **options):
        self.process = desk.spawn(PROGRAM, *arguments, **{
            "stdin": subprocess.PIPE, "stdout": subprocess.PIPE, "stderr": subprocess.PIPE, **options})
        self.desk = desk
        self.begun = b""

    def __enter__(self):
        return self

    def __exit__(self, *_):
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
        """The next event; None when there is none any more."""
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
        """Sends them and waits until the windows of all are on the screen."""
        self.send(*requests)
        for request in requests:
            shown = self.event()
            assert shown == {"shown": request.get("id", 0)}, shown

    def window(self, name):
        """The window of that name, once it has the keyboard."""
        return self.desk.reader.window(name, self.process.pid)

    def end_input(self):
        self.process.stdin.close()

    def status(self):
        """The exit status; everything that it said has been read before."""
        left = self.event()
        assert left is None, left
        return self.process.wait(PATIENCE)

    def complaint(self):
        """What it said on standard error, once it has ended."""
        return self.process.stderr.read().decode()
