"""The panel of a real desktop, with a tray in it."""

import re
import shutil

from rig.display import Rectangle
from rig.processes import end_process

PANEL_HEIGHT = 32

# Settings for one panel at the upper edge, which contains nothing but a tray.
CHANNEL = """<?xml version="1.0" encoding="UTF-8"?>
<channel name="xfce4-panel" version="1.0">
  <property name="configver" type="int" value="2"/>
  <property name="panels" type="array">
    <value type="int" value="1"/>
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

# The number of rows in the client's menu, including separators.
ROWS = 29

WATCHER = "org.kde.StatusNotifierWatcher", "/StatusNotifierWatcher", "org.kde.StatusNotifierWatcher"


class Panel:
    def __init__(self, session, bus, screen):
        self.session = session
        self.bus = bus
        self.screen = screen
        shutil.copy(SETTINGS_SERVICE, bus.services)
        folder = session.config / "xfce4/xfconf/xfce-perchannel-xml"
        folder.mkdir(parents=True)
        (folder / "xfce4-panel.xml").write_text(CHANNEL.format(size=PANEL_HEIGHT))
        session.environment.update({
            "GDK_SCALE": str(screen.scale),
            "PANGO_LANGUAGE": "zh_TW",  # chooses how Chinese characters are drawn
        })
        side = PANEL_HEIGHT * screen.scale
        self.icon = Rectangle(0, 0, side, side)
        self.start()

    def start(self):
        self.process = self.session.spawn("xfce4-panel", "--disable-wm-check")
        self.bus.wait_for_owner(WATCHER[0])

    def stop(self):
        end_process(self.process.pid)
        self.bus.wait_for_change(lambda: not self.bus.has_owner(WATCHER[0]))

    def items(self):
        return self.bus.get(WATCHER, "RegisteredStatusNotifierItems")

    def wait_for_item(self):
        with self.bus.monitor() as traffic:
            if not self.items():
                traffic.wait_for("StatusNotifierItemRegistered")
        return self.items()

    def wait_for_icon(self, coloured):
        """Waits until the icon is shown, in colour or in grey."""
        self.screen.wait_for_picture(
            self.icon, lambda picture: len(picture.pixels()) > 8 and picture.coloured() == coloured, "the icon")

    def open_menu(self):
        """Clicks on the icon, and waits until all rows are drawn. Returns the id of the menu's window."""
        so_far = len(self.screen.events.so_far)
        self.screen.click(*self.icon.centre())
        window = self.wait_for_popup(so_far)
        self.screen.wait_for_picture(self.rows(window), lambda picture: picture.bands() == ROWS, f"{ROWS} rows")
        return window

    def wait_for_popup(self, after=0):
        """Waits for a menu that opens after this position in the screen's events. Returns the id of its window."""
        # Ignores windows at negative coordinates, which toolkits use to grab the keyboard.
        placed = r"ConfigureNotify event.*\n.*, window (0x\w+), \(\d+,\d+\), width"
        mapped = r"MapNotify event.*\n.*, window \1, override YES"
        popup = re.compile(f"{placed}.*?{mapped}", re.DOTALL)
        return self.screen.events.wait(lambda text: popup.search(text, after), "menu on the screen").group(1)

    def rows(self, window):
        """Returns the place of the menu without its border."""
        return self.screen.geometry(window).within(4 * self.screen.scale)

    def last_row(self, window):
        rows = self.rows(window)
        height = rows.height // ROWS
        return Rectangle(rows.left, rows.top + rows.height - height, rows.width, height)

    def click_last_row(self, window):
        self.screen.click(*self.last_row(window).centre())
