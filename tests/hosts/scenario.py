"""The checks that tests/hosts makes in each desktop. They run in the booted system, as the user of the session."""

import json
import os
import re
import shutil
import subprocess
import sys
import time
import traceback
from collections import Counter
from contextlib import suppress
from pathlib import Path
from urllib.parse import unquote

from gi.repository import GLib

from hosts.menu import (PROJECT, THREAD, OTHER_PROJECT, OTHER_THREAD, MENU_ROLES, STATUS, PROJECT_ROW,
                        KEEP_AWAKE_STATE, GUIDE, CHECKED, ENABLED, ROWS, PAIRING, Row)
from rig.accessibility import ScreenReader
from rig.display import Picture, Rectangle, scan
from rig.isolation import CABLE
from rig.waiting import Deadline

PATIENCE = 90.0  # seconds; the client checks the backend every 20 s, and a desktop without a GPU is slow
UNIT = "kestrune-menu-client.service"
BACKEND = Path.home() / "backend"
PICTURES = Path("/pictures")


class Desktop:
    """The base class of the desktops. Each subclass uses the pointer, the tray menu and the screen of one desktop."""

    submenus = set()  # the numbers of the rows that have submenus in this desktop

    def __init__(self):
        self.width, self.height = map(int, sys.argv[1].split("x"))
        self.wayland = os.environ["XDG_SESSION_TYPE"] == "wayland"
        self.failures = 0
        self.root = Path("/tmp/checks")  # a scratch folder
        self.root.mkdir()
        self.wait_for_desktop()
        for line in self.manager("show-environment").splitlines():
            name, _, value = line.partition("=")
            if name in ("DISPLAY", "WAYLAND_DISPLAY", "XAUTHORITY", "XDG_CURRENT_DESKTOP", "SWAYSOCK"):
                os.environ[name] = value
        self.environment = os.environ
        self.reader = ScreenReader(self)
        self.connect()

    def connect(self):
        """Connects to the interfaces of the desktop that the checks need."""

    # --- programs

    @staticmethod
    def run(*command, check=True, **options):
        """Runs the command and returns its standard output. If `check`, raises ChildProcessError if the command fails."""
        done = subprocess.run(list(map(str, command)), stdin=subprocess.DEVNULL, capture_output=True, text=True,
                              timeout=PATIENCE, **options)
        if check and done.returncode != 0:
            raise ChildProcessError(f"{command} ends with {done.returncode}: {done.stdout}{done.stderr}")
        return done.stdout.strip()

    @staticmethod
    def output_of(*command, check=True):
        return subprocess.run(command, check=check, stdin=subprocess.DEVNULL, capture_output=True).stdout

    @staticmethod
    def spawn(*command):
        return subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)

    def manager(self, *arguments):
        """Calls the user's service manager. Returns the output of systemctl."""
        return self.run("systemctl", "--user", *arguments)

    def backend(self, *arguments):
        self.run(BACKEND / ".venv/bin/kestrune-mac-client", *arguments)

    def client(self, *arguments):
        self.run("KestruneMenuClient", *arguments)

    def lamp(self):
        return subprocess.run(["KestruneMenuClient", "--status"], capture_output=True).returncode

    def dialogs(self):
        """Returns whether a window of the client is open."""
        return subprocess.run(["pgrep", "-x", "KestruneMenuDia"], capture_output=True).returncode == 0

    # --- checks

    def wait(self, condition, what, seconds=PATIENCE):
        """Calls the condition until its value is true. Returns this value, or raises AssertionError after `seconds`."""
        deadline, fault = Deadline(seconds), ""
        while True:
            try:
                if value := condition():
                    return value
            except (ChildProcessError, GLib.Error, LookupError, ValueError) as error:
                fault = f": {error}"  # the condition may ask for an object that does not exist yet
            if deadline.left() == 0:
                raise AssertionError(f"not within {seconds:g} s: {what}{fault}")
            time.sleep(0.2)

    def check(self, what, condition, seconds=PATIENCE):
        """Waits up to `seconds` until the condition holds, and prints whether it does."""
        try:
            self.wait(condition, what, seconds)
            self.tell(True, what)
        except AssertionError as error:
            self.tell(False, error)

    def tell(self, holds, what):
        self.failures += not holds
        print("ok    " if holds else "not ok", what, flush=True)

    # --- pointer and screen, on X11

    def click(self, x, y, button=1):
        self.run("xdotool", "mousemove", x, y, "sleep", "0.3", "click", button)

    def take_picture(self, path):
        self.run("import", "-silent", "-window", "root", path)

    def set_dark(self, dark):
        scheme = "prefer-dark" if dark else "default"
        self.run("gsettings", "set", "org.gnome.desktop.interface", "color-scheme", scheme)

    # --- pictures of the screen, and the client's windows

    def shot(self, name):
        path = PICTURES / f"{name}.png"
        self.take_picture(path)
        return path

    def steady_shot(self, name):
        """Takes pictures until two in a row are equal, because then everything is drawn. Keeps the last picture."""
        last = None
        while last != (last := self.output_of("convert", self.shot(name), "rgb:-")):
            time.sleep(0.5)

    def picture(self, place, path=None):
        data = self.output_of("convert", path or self.shot("now"), "-crop", str(place), "-depth", "8", "rgb:-")
        return Picture(place.width, data)

    def window(self, title):
        """Waits for the client's window with this title, and returns it."""
        def found():
            for window in self.reader.windows():
                if window.name() == title:
                    return window
            raise LookupError(f"there are {self.reader.windows()}")
        return self.wait(found, f"window {title}")

    def open_window(self, action, title, name):
        """Does the action, waits for the client's window with this title, and takes a picture. Returns the window and
        its place in the picture."""
        self.clear_notifications()
        self.steady_shot("before")
        action()
        window = self.window(title)
        self.steady_shot(name)
        return window, self.place_of(window, PICTURES / f"{name}.png")

    def place_of(self, window, _picture):
        return Rectangle(*window.place())

    # --- the menu, in desktops where a screen reader can read it. A subclass sets `menu` (the accessible object) and
    # `menu_place` (its rectangle on the screen).

    def menu_is_open(self):
        return self.menu.is_shown()

    def close_menu(self):
        self.click(100, self.height // 2)
        self.wait(lambda: not self.menu_is_open(), "closed menu")

    def rows(self):
        rows = []
        # On Wayland, a program does not know where its menu is. So add each row's distance from the menu's corner to
        # `menu_place`.
        left, top, *_ = self.menu.place()
        for node in self.menu.all():
            if (role := node.role()) in MENU_ROLES:
                states, (x, y, width, height) = node.states(), node.place()
                place = Rectangle(x - left + self.menu_place.left, y - top + self.menu_place.top, width, height)
                rows.append(Row(node.name(), "checked" in states, role != "label" and "enabled" in states, place))
        return rows

    def open_menu_at(self, number):
        """Opens the menu, and in desktops with submenus also the one that contains row `number`. Returns the rows."""
        self.open_menu()
        return self.rows()

    def press(self, number):
        self.click(*self.open_menu_at(number)[number - 1].place.centre())

    # --- windows

    def close_window(self, window, button="好"):
        def closed():
            with suppress(GLib.Error, LookupError):  # the button may be gone; a window above it may catch the press
                window.find("push button", button).press()
            return not self.dialogs()
        self.wait(closed, "end of the window")

    def clear_notifications(self):
        """Removes the notifications, which would cover windows or vanish between two pictures. Here: does nothing."""

    # --- the scenario

    def stage(self):
        projects = [{"id": "own", "title": PROJECT, "thread_name": THREAD, "selected": True},
                    {"id": "relay", "title": OTHER_PROJECT, "thread_name": OTHER_THREAD, "selected": False}]
        (BACKEND / "projects.json").write_text(json.dumps({"projects": projects}))
        self.backend("refresh")
        # Fakes of the programs that the backend looks for, so that its report shows no fault.
        (self.root / "codex").write_text('#!/bin/sh\n[ "$1" = --version ] || while :; do sleep 1000; done\n')
        self.run("sudo", "install", self.root / "codex", "/usr/local/bin")
        self.run("sudo", "install", "/usr/bin/sleep", "/usr/local/bin/codex-app")
        (Path.home() / ".codex").mkdir(exist_ok=True)
        (Path.home() / ".codex/auth.json").touch()
        self.spawn("codex", "app-server")
        self.spawn("codex-app", "infinity")
        file = BACKEND / ".env"
        file.write_text(file.read_text().replace("APP_API_TOKEN=\n", f"APP_API_TOKEN={PAIRING[1]}\n"))
        self.manager("set-environment", f"KESTRUNE_REPO_PATH={BACKEND}", "QT_LINUX_ACCESSIBILITY_ALWAYS_ON=1")

    def check_icon(self):
        self.check("the icon is in colour while the lamp is green",
                   lambda: self.lamp() == 0 and self.icon_is(coloured=True))
        self.shot("icon-colour")
        self.backend("stop", "tunnel")
        self.check("the icon is grey while the lamp is red", lambda: self.lamp() == 4 and self.icon_is(coloured=False))
        self.shot("icon-grey")
        self.backend("refresh")
        self.check("the icon is in colour again", lambda: self.icon_is(coloured=True))

    def icon_is(self, coloured):
        picture = self.picture(self.icon())
        return len(picture.pixels()) > 8 and picture.coloured() == coloured

    def check_rows(self):
        """Compares all rows of the open menu with `ROWS`."""
        rows = self.rows()
        for number, (row, expected) in enumerate(zip(rows, ROWS), 1):
            wrong = {"text": not re.fullmatch(self.told(expected), row.text),
                     "check mark": row.checked != (number in CHECKED),
                     # A heading is disabled, except where the desktop shows it as a row that opens a submenu.
                     "enabled": row.text and row.enabled != (number in ENABLED | self.submenus)}
            if any(wrong.values()):
                self.tell(False, f"row {number}: {', '.join(name for name in wrong if wrong[name])} of {row}")
        self.tell(len(rows) == len(ROWS), f"the menu has {len(ROWS)} rows: {len(rows)}")
        print("       " + " | ".join(row.text or "—" for row in rows))

    def check_row(self, what, number, text):
        """Checks that this row of the open menu has this text, or gets it in time."""
        def says():
            if (found := self.rows()[number - 1].text) != self.told(text):
                raise LookupError(f"row {number} says “{found}”")
            return True
        self.check(what, says)

    def told(self, text):
        """Returns this text of a row as the desktop tells it to a screen reader."""
        return text

    def check_change_in_open_menu(self):
        self.open_menu_at(PROJECT_ROW)
        self.backend("select", "relay")
        self.check_row("a change shows in the open menu", PROJECT_ROW, f"同步專案：{OTHER_PROJECT}")
        self.check("the menu stayed open", self.menu_is_open, 0)
        self.shot("menu-changed")
        self.close_menu()
        self.select_own()

    def select_own(self):
        """Selects the project that `ROWS` expects, and waits until the client shows it."""
        self.backend("select", "own")
        self.wait(lambda: PROJECT in self.run("KestruneMenuClient", "--status", check=False), "own project")

    def check_click(self):
        window, place = self.open_window(lambda: self.press(GUIDE), "官方 ChatGPT 連接說明", "guide")
        self.tell(place.width > 200, f"a click on row {GUIDE} opens its window, at {place}")
        self.check("… which has the keyboard", lambda: "active" in window.states())
        self.close_window(window)

    def check_light_and_dark(self):
        for dark in (False, True):
            self.set_dark(dark)
            name = "dark" if dark else "light"
            window, place = self.open_window(lambda: self.client("--perform", "showStatus"), "目前狀態", f"report-{name}")
            points = self.picture(place, PICTURES / f"report-{name}.png").data
            [(background, _)] = Counter(zip(points[::3], points[1::3], points[2::3])).most_common(1)
            self.tell(max(background) < 90 if dark else min(background) > 165,
                      f"the window is {name} on a {name} desktop: {background}")
            self.close_window(window)
            window, _ = self.open_window(lambda: self.client("--perform", "showSettings"), "Kestrune 連線與桌面設定",
                                         f"settings-{name}")
            window.find("push button", "顯示手機配對 QR").press()
            self.check(f"the code on the {name} screen is the pairing link", self.pairing_is_read)
            shutil.copy(PICTURES / "now.png", PICTURES / f"pairing-{name}.png")
            self.window("手機配對 QR").find("push button", "好").press()
            self.close_window(window, "取消")
        self.set_dark(False)

    def pairing_is_read(self):
        read = scan(self, self.shot("now"))
        return all(part in unquote(read) for part in PAIRING)

    def check_keep_awake(self):
        self.check("the desktop reports the client's inhibitor", lambda: "Kestrune" in self.inhibitors())
        print("       " + " ".join(self.inhibitors().split()))
        self.client("--perform", "toggleKeepAwake")
        window = self.window("已關閉保持喚醒")
        self.check("… and none when 保持 Mac 醒著 is off", lambda: "Kestrune" not in self.inhibitors())
        self.close_window(window)
        self.client("--perform", "toggleKeepAwake")
        self.close_window(self.window("已開啟保持喚醒"))

    def check_notification(self):
        """Checks that the desktop shows a notification when a network appears."""
        self.clear_notifications()
        for words in CABLE:
            self.run("sudo", "ip", *words.split())
        self.check("the desktop shows a notification when the network changes",
                   lambda: "Kestrune 網路已變更" in self.notifications())
        self.shot("notification")

    def check_restart_of_host(self):
        self.stop_host()
        self.start_host()
        self.check("the icon is back after a restart of the host", lambda: self.icon_is(coloured=True))
        self.open_menu()
        self.check_row("… and its menu is right", PROJECT_ROW, f"同步專案：{PROJECT}")
        self.close_menu()

    def check_late_host(self):
        self.manager("stop", UNIT)
        self.stop_host()
        self.backend("refresh")
        self.manager("start", UNIT)
        self.wait(lambda: self.lamp() == 0, "green lamp")
        self.check_missing_tray()
        self.start_host()
        self.check("the icon appears in a host that starts after the client", lambda: self.icon_is(coloured=True))

    def check_unit(self):
        """Checks that the unit restarts a client that has crashed, and that what the client has opened keeps running."""
        (self.root / "xdg-open").write_text("#!/bin/sh\nexec sleep 12345\n")
        self.run("sudo", "install", self.root / "xdg-open", "/usr/local/bin")
        self.client("--perform", "openProjectFolder")
        opened = self.wait(lambda: self.run("pgrep", "-fx", "sleep 12345"), "opened program")
        before = self.manager("show", "--value", "--property=MainPID", UNIT)
        self.run("kill", "-KILL", before)
        self.check("the unit starts the client again after a crash", lambda: self.lamp() == 0 and before != self.manager(
            "show", "--value", "--property=MainPID", UNIT))
        self.tell(os.path.exists(f"/proc/{opened}"), "… and the program that opened a folder keeps running")

    def check_missing_tray(self):
        """Checks that the client shows a notification when there has been no tray host for half a minute."""
        self.check("without a host, a notification says what to do", lambda: "再啟動一次 Kestrune" in self.notifications())
        self.shot("notification-no-tray")

    def check_all(self):
        self.stage()
        self.manager("start", UNIT)
        for part in [getattr(self, name) for name in sys.argv[2:]] or self.parts():
            try:
                part()
            except Exception:  # the other parts may still succeed
                with suppress(Exception):
                    self.shot(f"{part.__name__}-failed")
                self.tell(False, f"{part.__name__}: {traceback.format_exc()}")
        for name in ("now", "before"):
            (PICTURES / f"{name}.png").unlink(missing_ok=True)
        return self.failures > 0

    def check_menu(self):
        self.open_menu()
        self.check_row("the menu is green", STATUS, "🟢 連線狀態：已連線")
        self.check_row("the menu says that the machine is kept awake", KEEP_AWAKE_STATE, "保持喚醒：已開啟")
        self.shot("menu")
        self.check_rows()
        self.close_menu()

    def parts(self):
        return [self.check_icon, self.check_menu, self.check_click, self.check_change_in_open_menu,
                self.check_keep_awake, self.check_notification, self.check_light_and_dark,
                self.check_restart_of_host, self.check_late_host, self.check_unit]

