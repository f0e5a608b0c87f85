"""Checks the client in sway, with Waybar and with swaybar. tests/hosts/sway runs this."""

import json
import os
import re
import sys
from pathlib import Path

from hosts.menu import GUIDE, PROJECT_ROW, STATUS
from hosts.pointer import Pointer
from hosts.scenario import Desktop
from rig.display import Rectangle
from rig.sway import Sway

BAR = 32  # height of the bar in pixels
MODULES = Path("/source/docs/scripts.md").read_text()


def block(language):
    """Returns the code block for Waybar in this language (json or css) from docs/scripts.md."""
    return next(text for text in re.findall(rf"```{language}\n(.*?)```", MODULES, re.DOTALL) if "kestrune" in text)


class Compositor(Sway):
    """A connection to the sway of the session."""

    def __init__(self):
        self.path = os.environ["SWAYSOCK"]
        self.commands = self.connect()

    def rectangle(self, title):
        """Returns the place and the workspace of the window whose title begins with `title`."""
        for workspace, node in self.nodes():
            if node["name"].startswith(title):
                return Rectangle(*(node["rect"][name] for name in ("x", "y", "width", "height"))), workspace
        raise LookupError(f"no window {title}")


class SwayDesktop(Desktop):
    def wait_for_desktop(self):
        self.wait(lambda: "SWAYSOCK" in self.manager("show-environment"), "sway")

    def connect(self):
        self.sway = Compositor()
        self.pointer = Pointer(self.width, self.height)
        self.click = self.pointer.click
        (self.root / "config").write_text(json.dumps({
            "height": BAR, "modules-right": ["custom/kestrune", "tray"], "tray": {"icon-size": 22},
            **json.loads("{" + block("json") + "}")}))
        (self.root / "style.css").write_text(
            '@import "/etc/xdg/waybar/style.css"; #tray { padding: 0 5px; margin: 0; background: none }' + block("css"))
        (Path.home() / ".config/mako").mkdir(parents=True)
        (Path.home() / ".config/mako/config").write_text("default-timeout=0\nanchor=bottom-right\n")
        self.start_host()

    def start_host(self):
        self.run("systemd-run", "--user", "--unit=bar", "waybar", "--config", self.root / "config", "--style",
                 self.root / "style.css")
        self.wait(lambda: self.run("busctl", "--user", "status", "org.kde.StatusNotifierWatcher"), "watcher")

    def stop_host(self):
        self.manager("stop", "bar")

    # --- pointer and screen

    def take_picture(self, path):
        self.run("grim", path)

    def place_of(self, window, _picture):
        return self.sway.rectangle(window.name())[0]

    def clear_notifications(self):
        self.run("makoctl", "dismiss", "--all")
        self.pointer.move(0, self.height - 1)  # away from the icon, which has a tooltip

    # --- the icon, its menu in Waybar, and the menu in a window

    def icon(self):
        return Rectangle(self.width - BAR, 0, BAR, BAR)

    def open_menu(self):
        x, y = self.icon().centre()
        self.click(x, y)
        self.in_window = False
        self.menu = self.wait(self.shown_menu, "menu")
        _, _, width, height = self.menu.place()
        # The top right corner of Waybar's menu is at the pointer, unless the menu would leave the screen.
        self.menu_place = Rectangle(x - width, min(y, self.height - height), width, height)

    def shown_menu(self):
        for application in self.reader.applications():
            if application.name() == "waybar":
                # Take the last window: the window of a closed menu may still be listed before it.
                return [window for window in application.children() if window.role() == "window"][-1].find("menu")
        raise LookupError("no Waybar")

    def menu_window(self):
        """Waits for the menu that the client shows as a window. From now on, the checks of rows look at this menu."""
        self.in_window = True
        self.menu = self.window("Kestrune")
        self.menu_place = self.wait(lambda: self.sway.rectangle("Kestrune"), "menu on the screen")[0]

    def close_windows(self):
        self.sway.command('[title="Kestrune"] kill')
        self.wait(lambda: not self.dialogs(), "closed windows")

    def told(self, text):
        return text if self.in_window else text.replace("_", "")  # GTK leaves out underscores for screen readers

    # --- checks of this desktop

    def check_menu(self):
        # GTK tells a screen reader only the first text of a row. So restart the host when the texts are final.
        self.wait(lambda: self.lamp() == 0, "green lamp")
        self.stop_host()
        self.start_host()
        self.wait(lambda: self.icon_is(coloured=True), "icon")
        super().check_menu()
        bottom = self.menu_place.top + self.menu_place.height
        self.tell(bottom <= self.height, f"the menu fits the screen: {bottom} of {self.height}")

    def check_change_in_open_menu(self):
        place = self.open_menu_at(PROJECT_ROW)[PROJECT_ROW - 1].place
        before = self.picture(place)
        self.backend("select", "relay")
        self.check("a change shows in the open menu", lambda: self.picture(place) != before)
        self.shot("menu-changed")
        self.close_menu()
        self.select_own()

    def check_late_host(self):
        super().check_late_host()
        self.check("… and the advice goes away", lambda: "再啟動一次 Kestrune" not in self.notifications())

    def check_menu_window(self):
        """Checks that a second start of the client, such as by a key binding, opens the menu as a window."""
        self.client()
        self.menu_window()
        self.shot("menu-window")
        self.check_rows()
        place = self.rows()[GUIDE - 1].place
        window, _ = self.open_window(lambda: self.click(*place.centre()), "官方 ChatGPT 連接說明", "guide-2")
        self.close_window(window)

    def check_another_workspace(self):
        """Checks that a window on another workspace comes to the present one, with the text typed into it, when the
        client is asked to show it again."""
        self.press(26)
        window = self.window("Kestrune 連線與桌面設定")
        field = window.find("text")
        typed = "https://typed.example.com"
        field.ask("org.a11y.atspi.EditableText", "SetTextContents", "(s)", typed)
        self.sway.command("workspace 2")
        self.client("--perform", "showSettings")
        self.check("a window on another workspace is brought back when it is asked for again",
                   lambda: self.sway.rectangle("Kestrune 連線與桌面設定")[1] == "2")
        self.check("… with what was typed in it", lambda: self.window("Kestrune 連線與桌面設定").find("text").text() == typed)
        self.shot("brought-back")
        self.close_windows()
        self.sway.command("workspace 1")

    def check_dot(self):
        """Checks the module for Waybar in docs/scripts.md, which shows a dot in the colours of the style sheet."""
        colours = dict(re.findall(r"\.(\w+) { color: #(\w+)", block("css")))
        place = Rectangle(self.width - 2 * BAR, 0, BAR, BAR)
        for name, command in ("ok", ("refresh",)), ("error", ("stop", "tunnel")), ("ok", ("refresh",)):
            self.backend(*command)
            colour = tuple(bytes.fromhex(colours[name]))
            self.check(f"Waybar's dot has the colour of “{name}”", lambda: colour in self.picture(place).pixels())
            self.shot(f"dot-{name}")

    def check_scale(self):
        """Takes pictures of windows at scale 2, for people to look at."""
        self.sway.command("output * scale 2")
        for action, title, button in (("showSettings", "Kestrune 連線與桌面設定", "取消"), ("showStatus", "目前狀態", "好")):
            window, _ = self.open_window(lambda: self.client("--perform", action), title, f"{action}-scale-2")
            self.close_window(window, button)
        self.sway.command("output * scale 1")

    def check_swaybar(self):
        self.stop_host()
        bar = f"bar {{\n position top\n height {BAR}\n tray_output *\n tray_padding 5\n}}\n"
        self.run("sudo", "sh", "-c", f"echo '{bar}' >>/etc/sway/checks")
        self.sway.command("reload")
        self.check("swaybar shows the icon in colour", lambda: self.icon_is(coloured=True))
        for button in 1, 3:
            self.click(*self.icon().centre(), button)
            self.menu_window()
            self.check(f"button {button} on swaybar's icon opens the menu as a window",
                       lambda: self.rows()[STATUS - 1].text.startswith("🟢"))
            self.shot(f"swaybar-{button}")
            self.close_windows()

    def inhibitors(self):
        return self.run("systemd-inhibit", "--list")

    def notifications(self):
        return self.run("makoctl", "list")

    def parts(self):
        return [*super().parts(), self.check_menu_window, self.check_another_workspace, self.check_dot,
                self.check_scale, self.check_swaybar]


if __name__ == "__main__":
    sys.exit(SwayDesktop().check_all())
