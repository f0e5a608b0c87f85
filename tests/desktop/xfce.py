"""A screen that nobody sees, and a real desktop panel with a tray on it."""

import os
import random
import re
import shutil
import subprocess
from dataclasses import dataclass
from pathlib import Path

from desktop.session import PATIENCE, Deadline, Text, end_process, own

# A server leaves its keyboard map for a moment in a folder that all share, under the number of its display.
DISPLAY = f":{random.randrange(100, 60000)}"
WIDTH, HEIGHT = 800, 1000
PANEL_HEIGHT = 32

# One panel at the upper edge with nothing but a tray.
CHANNEL = """<?xml version="1.0" encoding="UTF-8"?>
<channel name="xfce4-panel" version="1.0">
  <property name="configver" type="int" value="2"/>
  <property name="panels" type="array">
    <value type="int" value="1"/>
    <property name="dark-mode" type="bool" value="{dark}"/>
    <property name="panel-1" type="empty">
      <property name="position" type="string" value="p=6;x=0;y=0"/>
      <property name="position-locked" type="bool" value="true"/>
      <property name="length" type="uint" value="100"/>
      <property name="size" type="uint" value="{size}"/>
      <property name="icon-size" type="uint" value="22"/>
      <property name="plugin-ids" type="array">
        <value type="int" value="1"/>
      </property>
    </property>
  </property>
  <property name="plugins" type="empty">
    <property name="plugin-1" type="string" value="systray">
      <property name="square-icons" type="bool" value="true"/>
    </property>
  </property>
</channel>
"""
SETTINGS_SERVICE = "/usr/share/dbus-1/services/org.xfce.Xfconf.service"

# Of the client's menu: texts and separators.
ROWS = 29

WATCHER = "org.kde.StatusNotifierWatcher", "/StatusNotifierWatcher", "org.kde.StatusNotifierWatcher"


@dataclass
class Rectangle:
    left: int
    top: int
    width: int
    height: int

    def centre(self):
        return self.left + self.width // 2, self.top + self.height // 2

    def __str__(self):
        return f"{self.width}x{self.height}+{self.left}+{self.top}"


@dataclass
class Picture:
    """Part of the screen: three bytes for each point."""

    width: int
    data: bytes

    def pixels(self):
        return {tuple(self.data[at:at + 3]) for at in range(0, len(self.data), 3)}

    def coloured(self):
        """Whether there is more than shades of grey."""
        return any(max(pixel) - min(pixel) > 64 for pixel in self.pixels())

    def bands(self):
        """How many parts lie one above the other with nothing but background in between."""
        line = self.width * 3
        background = self.data[:3] * self.width
        blank = [self.data[at:at + line] == background for at in range(0, len(self.data), line)]
        return sum(before and not now for before, now in zip([True, *blank], blank))


class Screen:
    def __init__(self, session, scale=1):
        self.session = session
        self.scale = scale
        session.environment["DISPLAY"] = DISPLAY
        self.start()

    def start(self):
        # By an abstract socket alone and without a lock file: what is in a folder, all share.
        self.server = self.session.spawn(
            "Xvfb", DISPLAY, "-displayfd", "1", "-nolock", "-nolisten", "tcp", "-nolisten", "unix",
            "-screen", "0", f"{WIDTH * self.scale}x{HEIGHT * self.scale}x24",
            stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
        number = Text(own(self.server.stdout))
        number.wait(lambda text: "\n" in text, "display")
        number.close()
        self.watcher = self.session.spawn("xev", "-root", "-event", "substructure",
                                          stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
        self.events = Text(own(self.watcher.stdout))

    def stop(self):
        end_process(self.server.pid)
        self.close()

    def close(self):
        end_process(self.watcher.pid)
        self.events.close()

    def run(self, *command):
        return subprocess.run(command, env=self.session.environment, stdin=subprocess.DEVNULL, check=True,
                              capture_output=True, timeout=PATIENCE).stdout

    def picture(self, rectangle):
        data = self.run("import", "-silent", "-window", "root", "-crop", str(rectangle), "-depth", "8", "rgb:-")
        return Picture(rectangle.width, data)

    def save(self, rectangle, path):
        self.run("import", "-silent", "-window", "root", "-crop", str(rectangle), "+repage", "-strip", str(path))

    def screenshot(self, name):
        """For somebody who looks at them; they are kept where the environment says."""
        if folder := os.environ.get("KESTRUNE_SCREENSHOTS"):
            self.save(Rectangle(0, 0, WIDTH * self.scale, HEIGHT * self.scale), Path(folder) / f"{name}.png")

    def wait_for_change(self, rectangle, before):
        return self.wait_for_picture(rectangle, lambda picture: picture != before, "the change")

    def wait_for_picture(self, rectangle, condition, what):
        """Looks again and again, because a program that has drawn tells nobody."""
        deadline = Deadline()
        while not condition(picture := self.picture(rectangle)):
            if deadline.left() == 0:
                raise AssertionError(f"{what} is not to be seen")
        return picture

    def point_at(self, x, y):
        self.run("xdotool", "mousemove", str(x), str(y))

    def click(self, x, y):
        self.run("xdotool", "mousemove", str(x), str(y), "click", "1")

    def has_happened(self, event, window):
        return re.search(f"{event} event.*\n.*window {window}\\b", self.events.so_far) is not None

    def wait_until_closed(self, window):
        self.events.wait(lambda _: self.has_happened("UnmapNotify", window), f"end of {window}")

    def geometry(self, window):
        shell = self.run("xdotool", "getwindowgeometry", "--shell", str(int(window, 16))).decode()
        values = dict(line.split("=") for line in shell.splitlines())
        return Rectangle(*(int(values[name]) for name in ("X", "Y", "WIDTH", "HEIGHT")))

    def wait_for_popup(self, after=0):
        """The window of the menu that opens, according to the events behind that position."""
        # Others, with which a toolkit catches the keyboard, lie beyond the edge, where coordinates are negative.
        placed = r"ConfigureNotify event.*\n.*, window (0x\w+), \(\d+,\d+\), width"
        mapped = r"MapNotify event.*\n.*, window \1, override YES"
        popup = re.compile(f"{placed}.*?{mapped}", re.DOTALL)
        return self.events.wait(lambda text: popup.search(text, after), "menu on the screen").group(1)


class Panel:
    def __init__(self, session, bus, screen, dark=False):
        self.session = session
        self.bus = bus
        self.screen = screen
        shutil.copy(SETTINGS_SERVICE, bus.services)
        folder = session.config / "xfce4/xfconf/xfce-perchannel-xml"
        folder.mkdir(parents=True)
        (folder / "xfce4-panel.xml").write_text(CHANNEL.format(size=PANEL_HEIGHT, dark=str(dark).lower()))
        session.environment.update({
            "NO_AT_BRIDGE": "1",  # without the accessibility bus
            "GSETTINGS_BACKEND": "memory",
            "GDK_SCALE": str(screen.scale),
            "PANGO_LANGUAGE": "zh_TW",  # or characters would take the forms of another country
        })
        side = PANEL_HEIGHT * screen.scale
        self.icon = Rectangle(0, 0, side, side)
        self.start()

    def start(self):
        traffic = self.bus.monitor()
        self.process = self.session.spawn("xfce4-panel", "--disable-wm-check",
                                          stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        traffic.wait("NameOwnerChanged", lambda data: data[0] == WATCHER[0] and data[2] != "")
        traffic.close()

    def stop(self):
        traffic = self.bus.monitor()
        end_process(self.process.pid)
        if self.bus.has_owner(WATCHER[0]):
            traffic.wait("NameOwnerChanged", lambda data: data[0] == WATCHER[0] and data[2] == "")
        traffic.close()

    def items(self):
        return self.bus.get(WATCHER, "RegisteredStatusNotifierItems")

    def wait_for_item(self):
        traffic = self.bus.monitor()
        if not self.items():
            traffic.wait("StatusNotifierItemRegistered")
        traffic.close()
        return self.items()

    def wait_for_icon(self, coloured):
        """Waits until the icon is there, in colour or grey."""
        self.screen.wait_for_picture(
            self.icon, lambda picture: len(picture.pixels()) > 8 and picture.coloured() == coloured, "the icon")

    def open_menu(self):
        """Clicks at the icon, and waits until all rows are there: the window of the menu."""
        so_far = len(self.screen.events.so_far)
        self.screen.click(*self.icon.centre())
        window = self.screen.wait_for_popup(so_far)
        self.wait_for_rows(window)
        return window

    def rows(self, window):
        """Where the rows of the menu are, its border aside."""
        frame = self.screen.geometry(window)
        border = 4 * self.screen.scale
        return Rectangle(frame.left + border, frame.top + border, frame.width - 2 * border, frame.height - 2 * border)

    def wait_for_rows(self, window):
        self.screen.wait_for_picture(self.rows(window), lambda picture: picture.bands() == ROWS, f"{ROWS} rows")

    def last_row(self, window):
        rows = self.rows(window)
        height = rows.height // ROWS
        return Rectangle(rows.left, rows.top + rows.height - height, rows.width, height)

    def click_last_row(self, window):
        self.screen.click(*self.last_row(window).centre())
