"""The running client, and the menus and windows that its terminal face (the user interface in a terminal) prints."""

import os
import re
import signal
import subprocess
import time
from contextlib import suppress
from typing import NamedTuple

from rig.waiting import PATIENCE, Text, own

CHECKING = "🟡 連線狀態：正在檢查狀態…"
CONNECTED = "🟢 連線狀態：已連線"
FAULTY = "🔴 連線狀態：異常"
RECONNECTING = "🟡 連線狀態：正在重新連線…"
NETWORK_NOT_KNOWN = "目前網路：未知網路"
DISABLED = "🟡 連線狀態：已停用，不會啟動背景服務"

NO_BUS = ""  # without a bus, the terminal face prints nothing
NO_DESKTOP = "; where there is no desktop, use --terminal\n"
NO_BUS_FOR_THE_TRAY = ("KestruneMenuClient: no session bus (No such file or directory): "
                       "going on without it" + NO_DESKTOP)
NO_SYSTEM_BUS = "KestruneMenuClient: no system bus (No such file or directory): going on without it\n"
NO_TRAY = "KestruneMenuClient: no tray on this desktop: the icon appears as soon as there is one" + NO_DESKTOP


class Row:
    def __init__(self, line):
        self.number = int(line[:2])
        self.key = line[4].strip()
        self.mark = {"✓": True, "✗": False}.get(line[6])
        self.title = line[8:]


class Menu:
    """One printed menu. On a terminal, only changed rows are printed; the other rows are those of the menu `before`."""

    ROWS = r"((?:[ \d]\d  [^\n]*\n)+)"
    PATTERN = re.compile(rf"\n([^\n]*)\n─{{28}}\n{ROWS}|\n(?:(Kestrune[^\n]*)\n)?{ROWS}列號或按鍵> ")

    def __init__(self, match, before):
        title, rows, new_title, changed = match.groups()
        self.title = title or new_title or before.title
        self.rows = {**(before.rows if changed else {}),
                     **{row.number: row for row in map(Row, (rows or changed).splitlines())}}
        self.status = self.rows[2].title
        self.last = match.end(2 if rows else 4) - 1  # the position of the last character of this menu

    @classmethod
    def all_in(cls, text):
        menus = [None]
        for match in cls.PATTERN.finditer(text):
            menus.append(cls(match, menus[-1]))
        return menus[1:]


class Window(NamedTuple):
    """The texts of a window that is shown in a terminal, on the screen or as a notification."""

    title: str
    text: str
    warns: bool = False

    PRINTED = re.compile(r"\n([ℹ⚠]) ([^\n]*)\n─{28}\n(.*?)\n\n\[1\] 好  \n", re.DOTALL)

    @classmethod
    def all_in(cls, text):
        return [cls(title, content, sign == "⚠") for sign, title, content in cls.PRINTED.findall(text)]


class Client:
    """A running process of the client."""

    def __init__(self, command, terminal=None, **options):
        self.started = time.monotonic()
        self.process = subprocess.Popen(command, bufsize=0, **options)
        self.pid = self.process.pid
        self.input, output, errors = map(own, (self.process.stdin, self.process.stdout, self.process.stderr))
        if terminal is not None:
            self.input, output = os.dup(terminal), terminal
        self.output, self.errors = [descriptor and Text(descriptor) for descriptor in (output, errors)]
        self.seen = 0  # the number of menus that next_menu() has returned
        self.windows_seen = 0

    def close(self):
        with suppress(ProcessLookupError):
            self.process.kill()
        self.process.wait()
        if self.input is not None:
            os.close(self.input)
        self.input = None
        for text in (self.output, self.errors):
            if text:
                text.close()
        self.output = self.errors = None

    def age(self):
        return time.monotonic() - self.started

    def menus(self):
        return Menu.all_in(self.output.so_far)

    def next_menu(self, seconds=PATIENCE):
        menus = self.output.wait(lambda text: Menu.all_in(text)[self.seen:], "other menu", seconds)
        self.seen += 1
        return menus[0]

    def next_window(self):
        windows = self.output.wait(lambda text: Window.all_in(text)[self.windows_seen:], "other window")
        self.windows_seen += 1
        return windows[0]

    def menu_with(self, number, title):
        """Waits for the next menu in which the row has this title, and returns the menu."""
        while (menu := self.next_menu()).rows[number].title != title:
            pass
        return menu

    def first_check(self):
        """Waits for the menu with the result of the first check, and returns it."""
        first = self.next_menu()
        assert first.status == CHECKING, first.status
        # A reconnect comes first if the network is known before the first check is done.
        while (menu := self.next_menu()).status == RECONNECTING:
            pass
        return menu

    def checked(self):
        """Waits until the first check of the backend has ended, the network is known, and the reconnect that the known
        network causes has ended. Returns the menu. The check after this reconnect may still run; it prints nothing if
        its result is the same."""
        menu = self.first_check()
        while menu.status == RECONNECTING or menu.rows[10].title == NETWORK_NOT_KNOWN:
            menu = self.next_menu()
        return menu

    def assert_only_started(self, status):
        """Checks that only the menus of a start were printed."""
        printed = [menu.status for menu in self.menus()]
        # The first check and the reconnect come in any order, and not every state is printed.
        assert printed in ([CHECKING, RECONNECTING, status], [CHECKING, status, RECONNECTING, status],
                           [CHECKING, status]), printed

    def said(self, words):
        self.output.wait(lambda text: words in text, f"'{words}' on standard output")

    def complained(self, words):
        self.errors.wait(lambda text: words in text, f"'{words}' on standard error")

    def type(self, line):
        os.write(self.input, line.encode() + b"\n")

    def send(self, number):
        self.process.send_signal(number)

    def status(self, seconds=PATIENCE):
        """Waits until the program has ended, and returns its exit status."""
        return self.process.wait(seconds)

    def quit(self):
        self.type("q")
        return self.status()

    def end(self, number=signal.SIGTERM):
        self.send(number)
        return self.status()
