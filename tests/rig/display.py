"""An Xvfb screen: pictures of it, and mouse and keyboard."""

import os
import random
import re
import select
import subprocess
from dataclasses import dataclass
from pathlib import Path

from rig.processes import end_process
from rig.waiting import Deadline, Text, own

WIDTH, HEIGHT = 1280, 1000
# Seconds; a window manager that prints nothing for so long is asked again.
ANSWER = 0.1


@dataclass
class Rectangle:
    left: int
    top: int
    width: int
    height: int

    def centre(self):
        return self.left + self.width // 2, self.top + self.height // 2

    def within(self, border):
        return Rectangle(self.left + border, self.top + border, self.width - 2 * border, self.height - 2 * border)

    def __str__(self):
        return f"{self.width}x{self.height}+{self.left}+{self.top}"


@dataclass
class Picture:
    """Part of the screen: three bytes for each pixel."""

    width: int
    data: bytes

    def pixels(self):
        return {tuple(self.data[at:at + 3]) for at in range(0, len(self.data), 3)}

    def coloured(self):
        """Whether a pixel is not grey."""
        return any(max(pixel) - min(pixel) > 60 for pixel in self.pixels())

    def shades(self):
        """The lightness of all pixels, the darkest first."""
        return sorted(sum(pixel) / 3 for pixel in self.pixels())

    def bands(self):
        """The number of parts above each other that lines of background separate."""
        line = self.width * 3
        background = self.data[:3] * self.width
        blank = [self.data[at:at + line] == background for at in range(0, len(self.data), line)]
        return sum(before and not now for before, now in zip([True, *blank], blank))


class Screen:
    def __init__(self, session, width=WIDTH, height=HEIGHT, scale=1):
        self.session = session
        self.whole = Rectangle(0, 0, width * scale, height * scale)
        self.scale = scale
        # Random: Xvfb keeps its keyboard map for a moment in a shared folder, under the display number.
        self.name = f":{random.randrange(100, 60000)}"
        session.environment["DISPLAY"] = self.name
        session.callback(self.close)
        self.start()

    def start(self):
        # Only an abstract socket, which belongs to the network namespace, and no lock file in a shared folder.
        self.server = self.session.spawn(
            "Xvfb", self.name, "-displayfd", "1", "-nolock", "-nolisten", "tcp", "-nolisten", "unix", "-noreset",
            "-screen", "0", f"{self.whole.width}x{self.whole.height}x24", stdout=subprocess.PIPE)
        number = Text(own(self.server.stdout))
        number.line()
        number.close()
        self.watcher = self.session.spawn("xev", "-root", "-event", "substructure", stdout=subprocess.PIPE)
        self.events = Text(own(self.watcher.stdout))

    def stop(self):
        end_process(self.server.pid)
        self.close()

    def close(self):
        if self.events:
            end_process(self.watcher.pid)
            self.events.close()
        self.events = None

    def run(self, *command, **options):
        """The output of a program on this screen."""
        return self.session.output_of(*command, env={**self.session.environment, "DISPLAY": self.name}, **options)

    # --- what is on it

    def picture(self, rectangle):
        data = self.run("import", "-silent", "-window", "root", "-crop", str(rectangle), "-depth", "8", "rgb:-")
        return Picture(rectangle.width, data)

    def save(self, rectangle, path):
        self.run("import", "-silent", "-window", "root", "-crop", str(rectangle), "+repage", "-strip", str(path))

    def screenshot(self, name):
        """Saved in the folder KESTRUNE_SCREENSHOTS, if that is set."""
        if folder := os.environ.get("KESTRUNE_SCREENSHOTS"):
            self.save(self.whole, Path(folder) / f"{name}.png")

    def scan(self, rectangle):
        """The text of the QR code there; empty without one."""
        picture = self.session.root / "scanned.png"
        self.save(rectangle, picture)
        return scan(self.session, picture)

    def wait_for_picture(self, rectangle, condition, what):
        """Polls, because there is no event for a finished drawing."""
        deadline = Deadline()
        while not condition(picture := self.picture(rectangle)):
            if deadline.left() == 0:
                raise AssertionError(f"not on the screen: {what}")
        return picture

    def wait_for_change(self, rectangle, before):
        return self.wait_for_picture(rectangle, lambda picture: picture != before, "the change")

    def has_happened(self, event, window):
        return re.search(f"{event} event.*\n.*window {window}\\b", self.events.so_far) is not None

    def wait_until_closed(self, window):
        self.events.wait(lambda _: self.has_happened("UnmapNotify", window), f"end of {window}")

    def geometry(self, window):
        """The place of a window, given by its id."""
        shell = self.run("xdotool", "getwindowgeometry", "--shell", str(int(window, 0))).decode()
        values = dict(line.split("=") for line in shell.splitlines())
        return Rectangle(*(int(values[name]) for name in ("X", "Y", "WIDTH", "HEIGHT")))

    # --- what a user does

    def point_at(self, x, y):
        self.run("xdotool", "mousemove", str(x), str(y))

    def click(self, x, y, button=1):
        self.run("xdotool", "mousemove", str(x), str(y), "click", str(button))

    def keys(self, *names):
        self.run("xdotool", "key", *names)

    def type(self, text):
        # Through a pipe: a secret must not appear in a command line.
        self.run("xdotool", "type", "--delay", "0", "--file", "-", stdin=None, input=text.encode())

    def start_manager(self):
        """Starts a window manager, and waits until it handles requests."""
        watcher = self.session.spawn("xprop", "-root", "-spy", stdout=subprocess.PIPE)
        descriptor = own(watcher.stdout)
        self.session.spawn("openbox", "--sm-disable")
        # It announces itself before it handles requests, and may leave an early request unhandled. So wait until it has
        # handled one.
        deadline, said = Deadline(), b""
        while b"_NET_NUMBER_OF_DESKTOPS(CARDINAL) = 2" not in said:
            if deadline.left() == 0:
                raise AssertionError(f"the window manager does nothing, but {said}")
            if b"_NET_CLIENT_LIST(WINDOW)" in said:
                self.run("xdotool", "set_num_desktops", "2")
            if select.select([descriptor], [], [], ANSWER)[0]:
                said += os.read(descriptor, 65536)
        end_process(watcher.pid)
        os.close(descriptor)


def scan(session, picture):
    return session.output_of("zbarimg", "--nodbus", "--quiet", "--raw", "-Sbinary", str(picture), check=False).decode()
