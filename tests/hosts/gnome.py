"""Checks the client in GNOME Shell with the AppIndicator extension. tests/hosts/gnome runs this."""

import json
import sys
import time

from gi.repository import Gio, GLib

from hosts.menu import Row
from hosts.scenario import Desktop
from rig.display import Rectangle

EXTENSION = "ubuntu-appindicators@ubuntu.com"
FIRST, SECOND = 2, 20  # the rows that have submenus in GNOME Shell
# JavaScript functions for the expressions that GNOME Shell evaluates.
SHELL = """
const Main = imports.ui.main, Clutter = imports.gi.Clutter;
const items = Object.entries(Main.panel.statusArea).filter(([name, _]) => name.startsWith('appindicator-'));
const item = () => items[0][1];
const place = actor => [...actor.get_transformed_position(), ...actor.get_transformed_size()].map(Math.round);
const row = item => ({text: item.label?.text ?? '', checked: item._ornament === 2, place: place(item),
                      enabled: item.sensitive && item.reactive, below: item.menu ? rows(item.menu) : []});
const rows = menu => menu._getMenuItems().map(row);
const seat = () => Clutter.get_default_backend().get_default_seat();
global.pointer ??= seat().create_virtual_device(Clutter.InputDeviceType.POINTER_DEVICE);
const now = () => imports.gi.GLib.get_monotonic_time();
"""


class Gnome(Desktop):
    submenus = {FIRST, SECOND}

    def wait_for_desktop(self):
        self.bus = self.wait(lambda: Gio.bus_get_sync(Gio.BusType.SESSION), "session bus")
        self.wait(lambda: self.shell("Main.overview.hide(); return !Main.layoutManager._startingUp"), "shell")
        self.wait(self.has_host, "watcher")

    def shell(self, code):
        """Evaluates the JavaScript code in GNOME Shell. Returns its value, or None if it has none."""
        body = code if "return" in code else f"return {code}"
        done, told = self.bus.call_sync(
            "org.gnome.Shell", "/org/gnome/Shell", "org.gnome.Shell", "Eval",
            GLib.Variant("(s)", (f"(() => {{ {SHELL} {body} }})()",)), None, Gio.DBusCallFlags.NONE, 20000).unpack()
        if not done:
            raise LookupError(told)
        return json.loads(told) if told else None

    def has_host(self):
        owner = self.run("busctl", "--user", "status", "org.kde.StatusNotifierWatcher", check=False)
        return "gnome-shell" in owner

    # --- pointer and screen

    def click(self, x, y, button=1):
        if not self.wayland:
            return super().click(x, y, button)
        self.shell(f"global.pointer.notify_absolute_motion(now(), {x}, {y}); return 1")
        time.sleep(0.3)
        for down in (1, 0):
            self.shell(f"global.pointer.notify_button(now(), {button}, {down}); return 1")

    def scroll(self, x, y):
        """Scrolls down to the end at this point."""
        if self.wayland:
            self.shell(f"global.pointer.notify_absolute_motion(now(), {x}, {y}); for (let i = 0; i < 20; ++i) "
                       "global.pointer.notify_discrete_scroll(now(), Clutter.ScrollDirection.DOWN, 0); return 1")
        else:
            self.run("xdotool", "mousemove", x, y, "click", "--repeat", 20, 5)
        time.sleep(0.5)

    def take_picture(self, path):
        if not self.wayland:
            return super().take_picture(path)
        self.run("gdbus", "call", "--session", "--dest=org.gnome.Shell", "--object-path=/org/gnome/Shell/Screenshot",
                 "--method=org.gnome.Shell.Screenshot.Screenshot", "false", "false", path)

    def place_of(self, window, _picture):
        return Rectangle(*self.shell(
            "const windows = global.get_window_actors().map(actor => actor.meta_window), {x, y, width, height} = "
            f"windows.find(window => window.title.startsWith({json.dumps(window.name())})).get_frame_rect(); "
            "return [x, y, width, height]"))

    # --- the icon and its menu

    def icon(self):
        return self.placed("item()._icon ?? item()")

    def placed(self, actor):
        """Waits until GNOME Shell has placed this actor, a JavaScript expression. Returns the actor's place."""
        return self.wait(lambda: None not in (place := self.shell(f"place({actor})")) and Rectangle(*place), actor)

    def menu_is_open(self):
        return self.shell("item().menu.isOpen")

    def open_menu(self):
        self.click(*self.placed("item()").centre())
        self.wait(self.menu_is_open, "open menu")

    def close_menu(self):
        self.shell("item().menu.close(); return 1")

    def rows(self):
        found = []
        for row in self.shell("rows(item().menu)"):
            found += [row, *row["below"]]
        return [Row(row["text"], row["checked"], row["enabled"], Rectangle(*row["place"])) for row in found]

    def unfold(self, number):
        """Opens the submenu of row `number` by a click. Returns the rows of the menu after that."""
        closed = self.rows()[number]
        self.click(*self.rows()[number - 1].place.centre())
        self.wait(lambda: self.rows()[number].place != closed.place, "unfolded submenu")
        time.sleep(0.5)
        return self.rows()

    def open_menu_at(self, number):
        rows = super().open_menu_at(number)
        submenu = FIRST if FIRST < number < 12 else SECOND if SECOND < number < 28 else None
        return self.unfold(submenu) if submenu else rows

    # --- checks of this desktop

    def clear_notifications(self):
        self.shell("Main.messageTray.getSources().forEach(source => source.destroy()); return 1")

    def check_menu(self):
        self.clear_notifications()
        super().check_menu()
        self.open_menu()
        rows = self.rows()
        bottom = rows[-1].place.top + rows[-1].place.height
        self.tell(bottom <= self.height, f"the closed menu fits the screen: {bottom} of {self.height}")
        below = [(at, len(row["below"])) for at, row in enumerate(self.shell("rows(item().menu)"), 1) if row["below"]]
        self.tell(below == [(2, 9), (11, 7)], f"rows 3 to 11 and 21 to 27 are submenus of rows 2 and 20: {below}")
        for number, last in (FIRST, 11), (SECOND, 27):
            rows = self.unfold(number)
            self.shot(f"menu-unfolded-{number}")
            self.scroll(*rows[number].place.centre())
            place, end, quits = (self.rows()[row - 1].place for row in (last, last + 1, 29))
            self.tell(quits.top + quits.height <= self.height and place.top + place.height <= end.top,
                      f"row {last} of its submenu, scrolled to the end, lies at {place}, row 29 at {quits}")
        self.close_menu()

    def check_click(self):
        super().check_click()
        self.press(25)  # opens no window of the client
        time.sleep(0.5)
        waiting = self.shell("imports.gi.Shell.WindowTracker.get_default().get_startup_sequences().length")
        # On X11, GNOME Shell does not notice that the item has refused the token of the first click.
        allowed = 0 if self.wayland else 1
        self.tell(waiting <= allowed, f"startup sequences after a row without a window: {waiting}")

    def inhibitors(self):
        return self.run("gnome-session-inhibit", "--list")

    def notifications(self):
        """Returns the text of the notification on the screen, or "" if there is none. Moves the pointer, because GNOME
        Shell shows the next notification only after that."""
        self.click(self.width // 3 + time.monotonic_ns() % 99, self.height - 20)
        return self.shell("const {_notification: shown, _notificationState: state} = Main.messageTray; "
                          "return state === 2 ? `${shown.title}\\n${shown.bannerBodyText}` : ''")

    def stop_host(self):
        self.run("gnome-extensions", "disable", EXTENSION)
        self.wait(lambda: not self.has_host(), "end of the extension")

    def start_host(self):
        self.run("gnome-extensions", "enable", EXTENSION)
        self.wait(self.has_host, "extension")


if __name__ == "__main__":
    sys.exit(Gnome().check_all())
