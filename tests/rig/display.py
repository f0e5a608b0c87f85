"""An Xvfb screen, pictures of it, and a mouse and a keyboard for it."""

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
# If xprop prints nothing for this time, in seconds, the request to the window manager is repeated.
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
    """A picture of a part of the screen: three bytes for each pixel."""

    width: int
    data: bytes

    def pixels(self):
        return {tuple(self.data[at:at + 3]) for at in range(0, len(self.data), 3)}

    def coloured(self):
        """Returns whether at least one pixel is not grey."""
        return any(max(pixel) - min(pixel) > 60 for pixel in self.pixels())

    def shades(self):
        """Returns the lightness of all pixels, the darkest first."""
        return sorted(sum(pixel) / 3 for pixel in self.pixels())

    def bands(self):
        """Counts the horizontal bands that are separated by lines of background, such as the rows of a menu."""
        line = self.width * 3
        background = self.data[:3] * self.width
        blank = [self.data[at:at + line] == background for at in range(0, len(self.data), line)]
        return sum(before and not now for before, now in zip([True, *blank], blank))


class Screen:
    def __init__(self, session, width=WIDTH, height=HEIGHT, scale=1):
        self.session = session
        self.whole = Rectangle(0, 0, width * scale, height * scale)
        self.scale = scale
        # The number is random: Xvfb puts its keyboard map for a moment into a shared folder, in a file that is named
        # after the number. Two servers with the same number could overwrite this file.
        self.name = f":{random.randrange(100, 60000)}"
        session.environment["DISPLAY"] = self.name
        session.callback(self.close)
        self.start()

    def start(self):
        # Xvfb listens only at an abstract socket, which belongs to the network namespace, and makes no lock file in a
        # shared folder. So it cannot collide with another Xvfb.
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
        """Runs a program on this screen, and returns its output."""
        return self.session.output_of(*command, env={**self.session.environment, "DISPLAY": self.name}, **options)

    # --- what the screen shows

    def picture(self, rectangle):
        data = self.run("import", "-silent", "-window", "root", "-crop", str(rectangle), "-depth", "8", "rgb:-")
        return Picture(rectangle.width, data)

    def save(self, rectangle, path):
        self.run("import", "-silent", "-window", "root", "-crop", str(rectangle), "+repage", "-strip", str(path))

    def screenshot(self, name):
        """Saves a picture of the screen in the folder KESTRUNE_SCREENSHOTS, if this variable is set."""
        if folder := os.environ.get("KESTRUNE_SCREENSHOTS"):
            self.save(self.whole, Path(folder) / f"{name}.png")

    def scan(self, rectangle):
        """Returns the text of the QR code in the rectangle, or "" if there is none."""
        picture = self.session.root / "scanned.png"
        self.save(rectangle, picture)
        return scan(self.session, picture)

    def wait_for_picture(self, rectangle, condition, what):
        """Takes pictures until the condition is true, because no event reports a finished drawing."""
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
        """Returns the place of the window with this id."""
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
        # The text goes through a pipe, because a secret must not appear in a command line.
        self.run("xdotool", "type", "--delay", "0", "--file", "-", stdin=None, input=text.encode())

    def start_manager(self):
        """Starts a window manager, and waits until it handles requests."""
        watcher = self.session.spawn("xprop", "-root", "-spy", stdout=subprocess.PIPE)
        descriptor = own(watcher.stdout)
        self.session.spawn("openbox", "--sm-disable")
        # The window manager announces itself before it handles requests, and may never handle an early request. So this
        # repeats a request until the window manager has handled it.
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
