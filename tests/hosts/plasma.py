"""Checks the client in KDE Plasma. tests/hosts/plasma runs this."""

import os
import subprocess
import sys

from gi.repository import Gio, GLib

from hosts.menu import ROWS, SETTINGS
from hosts.pointer import Pointer
from hosts.scenario import PICTURES, Desktop
from rig.accessibility import Node
from rig.display import Rectangle

PANEL_HEIGHT = 54
POLICY = "org.kde.Solid.PowerManagement.PolicyAgent"


class Plasma(Desktop):
    def wait_for_desktop(self):
        self.wait(lambda: self.run("pgrep", "-x", "plasmashell"), "plasmashell")

    def connect(self):
        self.bus = Gio.bus_get_sync(Gio.BusType.SESSION)
        self.node = None  # the accessible object of the tray icon
        self.pointer = Pointer(self.width, self.height) if self.wayland else None
        self.wait(lambda: self.button("數位時鐘"), "panel")

    def shell(self):
        for application in self.reader.applications():
            if application.name() == "plasmashell":
                return application
        raise LookupError("plasmashell tells screen readers nothing")

    def button(self, name):
        """Returns the panel's button whose name begins with `name`."""
        for node in self.shell().walk():
            if node.name().startswith(name) and node.role() == "push button" and node.is_shown():
                return node
        raise LookupError(f"no button {name}")

    # --- pointer and screen

    def click(self, x, y, button=1):
        (self.pointer or super()).click(x, y, button)

    def take_picture(self, path):
        if not self.wayland:
            return super().take_picture(path)
        near, far = os.pipe()
        descriptors = Gio.UnixFDList.new_from_array([far])
        with subprocess.Popen(["cat"], stdin=near, stdout=subprocess.PIPE) as reader:
            os.close(near)
            answer, _ = self.bus.call_with_unix_fd_list_sync(
                "org.kde.KWin", "/org/kde/KWin/ScreenShot2", "org.kde.KWin.ScreenShot2", "CaptureScreen",
                GLib.Variant("(sa{sv}h)", ("Virtual-0", {}, 0)), None, Gio.DBusCallFlags.NONE, 20000, descriptors)
            del descriptors  # closes this process's write end of the pipe
            data = reader.stdout.read()
        width, height = (answer.unpack()[0][name] for name in ("width", "height"))
        subprocess.run(["convert", "-size", f"{width}x{height}", "-depth", "8", "bgra:-", "-alpha", "off", path],
                       input=data, check=True)

    def place_of(self, window, picture):
        return self.changed_in(picture) if self.wayland else super().place_of(window, picture)

    def changed_in(self, picture):
        """Returns the rectangle in which this picture differs from before.png, without the panel. On Wayland, where a
        program cannot learn the place of a window, the checks find windows and menus in this way."""
        told = self.run("convert", PICTURES / "before.png", picture, "-compose", "difference", "-composite", "-crop",
                        Rectangle(0, 0, self.width, self.height - PANEL_HEIGHT), "-threshold", "1%", "-trim", "-format",
                        "%w %h %X %Y", "info:")
        width, height, left, top = map(int, told.split())
        return Rectangle(left, top, width, height)

    def set_dark(self, dark):
        self.run("plasma-apply-colorscheme", "BreezeDark" if dark else "BreezeLight")

    # --- the icon and its menu

    def icon(self):
        # On Wayland, an accessible object knows only its place in its window. The icon's window is the panel, which is
        # at the bottom of the screen.
        if not (self.node and self.node.is_shown()):
            self.node = self.wait(lambda: self.button("Kestrune"), "icon")
        left, _, width, _ = self.node.place()
        return Rectangle(left, self.height - PANEL_HEIGHT + 8, width, PANEL_HEIGHT - 16)

    def open_menu(self, button=1):
        self.shot("before")
        self.reader.heard().clear()
        self.click(*self.icon().centre(), button)
        self.menu = self.wait(self.shown_menu, "menu")
        left, top, width, height = self.menu.place()
        if self.wayland:
            seen = self.wait(lambda: self.changed_in(self.shot("now")), "menu on the screen")
            left, top = seen.centre()[0] - width // 2, seen.top
        self.menu_place = Rectangle(left, top, width, height)

    def shown_menu(self):
        """Returns the client's menu if it has been shown since the click, else None. The menu belongs to no listed
        window, so this searches the accessibility events."""
        for sender, path, _, name, values in self.reader.heard():
            if name == "StateChanged" and values.unpack()[:2] == ("showing", 1):
                node = Node(self.reader, sender, path)
                if node.role() == "popup menu" and len(node.children()) > 20:
                    return node
        return None

    # --- checks of this desktop

    def check_menu(self):
        super().check_menu()
        for button, name in (1, "left"), (3, "right"):
            self.open_menu(button)
            icon, menu = self.icon(), self.menu_place
            beside = menu.left <= icon.centre()[0] <= menu.left + menu.width
            self.tell(beside and menu.top + menu.height > self.height - 80,
                      f"a {name} click opens the menu at the icon, at {menu}")
            self.tell(not self.dialogs(), "… and no window")
            inside = [row for row in self.rows() if 0 <= row.place.top < row.place.top + row.place.height <= self.height]
            self.tell(len(inside) == len(ROWS), f"… with {len(ROWS)} rows on the screen: {len(inside)}")
            keys = self.menu.children()[SETTINGS - 1].keys()
            self.tell(keys == "Ctrl+,", f"row {SETTINGS} has the key {keys}")
            self.close_menu()

    def inhibitors(self):
        return self.run("busctl", "--user", "call", POLICY, "/" + POLICY.replace(".", "/"), POLICY, "ListInhibitions")

    def notifications(self):
        """Returns the texts of all labels of the desktop that are shown, which include those of notifications."""
        return "\n".join(node.name() for node in self.shell().walk() if node.role() == "label" and node.is_shown())

    def clear_notifications(self):
        self.wait(lambda: "Kestrune" not in self.notifications(), "end of notifications")

    def stop_host(self):
        self.manager("stop", "plasma-plasmashell")

    def start_host(self):
        self.manager("start", "plasma-plasmashell")
        self.wait(lambda: self.button("數位時鐘"), "panel")

    def check_missing_tray(self):
        """Checks nothing: without plasmashell, no program shows notifications."""


if __name__ == "__main__":
    sys.exit(Plasma().check_all())
