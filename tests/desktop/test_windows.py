"""Tests of the tray face's windows, used as by a screen reader. (A face is a user interface: tray or terminal.)"""

import signal

from rig import isolation
from rig.bus import ITEM
from rig.client import CONNECTED, NO_TRAY
from rig.onscreen import OnScreen
from rig.processes import running, wait_for_end
from rig.session import HELD_UP_STOP, counted
from rig.windows import AWAKE, GUIDE_TITLE, NOT_AWAKE, OWN_MODE

MENU_WINDOW = "Kestrune"


class Windows(OnScreen):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.start(switched_off=True)

    def setUp(self):
        self.addCleanup(self.end_windows)

    def assertMenuOpens(self):
        """Checks that the menu is open as a window with the same rows as in the tray. Returns the window."""
        window = self.window(MENU_WINDOW)
        shown = [node.name() for node in window.all() if node.role() in ("label", "push button", "check box")]
        self.assertEqual(shown, [row["label"] for row in self.bus.rows().values() if "label" in row])
        return window

    def test_the_menu_as_a_window(self):
        self.bus.call(ITEM, "Activate", "ii", 0, 0)
        pid = self.assertMenuOpens().pid()
        # Neither a second click nor a second start opens another window.
        self.bus.call(ITEM, "Activate", "ii", 0, 0)
        self.assertEqual(self.session.run(), (0, "", ""))
        self.assertEqual(self.windows(), [pid])
        menu = self.assertMenuOpens()
        row = menu.find("push button", "使用官方 ChatGPT 模式")
        self.bus.click(17)
        row.wait(lambda node: node.name() == "使用 Kestrune 自托管模式", "other mode")
        self.choose(self.window(OWN_MODE.title))
        self.assertIn(pid, running())
        row.press()
        wait_for_end(pid)
        self.assertShows(OWN_MODE)
        self.assertEqual(self.session.run(), (0, "", ""))
        self.assertMenuOpens().find("check box", "保持 Mac 醒著（防止斷線）").press()
        self.assertShows(NOT_AWAKE)
        self.assertFalse(self.bus.rows()[16]["toggle-state"])
        self.assertEqual(self.session.run("--background"), (0, "", ""))
        # If --background had opened a window, that window would come before the one that the click opens.
        self.bus.click(16)
        self.assertShows(AWAKE)

    def test_rows_about_codex(self):
        for row, title, warns in (22, "Codex 版本與 Remote Control", False), (23, "未找到 Codex App", True):
            self.bus.click(row)
            shown, window = self.read(title)
            self.assertEqual(shown.warns, warns)
            self.choose(window)


class Quitting(OnScreen):
    def test_windows_close_before_the_backend_is_stopped(self):
        self.session.backend("refresh")
        services = self.session.services()
        before = set(self.session.processes())
        self.client = self.session.start()
        self.traffic.wait_for_status(CONNECTED)
        self.session.program("lsof", HELD_UP_STOP)
        self.bus.click(24)
        self.window(GUIDE_TITLE)
        self.bus.call(ITEM, "Activate", "ii", 0, 0)
        menu = self.window(MENU_WINDOW)
        windows = self.windows()
        self.assertEqual(len(windows), 2)
        menu.find("push button", "退出 Kestrune").press()
        self.assertEqual(self.session.events.next(), "stopping")
        wait_for_end(*windows)
        self.assertIn(self.client.pid, running())
        self.client.send(signal.SIGTERM)
        self.session.gate.open()
        self.assertEqual(self.session.events.next(), "stopping")
        self.session.gate.open()
        self.assertEqual(self.client.status(), 0)
        wait_for_end(*services)
        before -= set(services)
        self.session.wait_for_ends(besides=before)
        self.assertLessEqual(set(self.session.processes()), before)
        self.assertEqual(self.client.errors.all(), NO_TRAY)


class Restart(OnScreen):
    def test_a_restart_starts_a_new_client(self):
        self.session.program("lsof", HELD_UP_STOP)
        # This display does not exist. The client must treat it like a display whose server has ended.
        self.start(environment={"DISPLAY": self.screen.name + "1"})
        self.bus.click(24)
        self.traffic.wait_for("Notify", lambda data: data[3] == GUIDE_TITLE)
        self.client.complained("it ended before its window appeared\n")
        name = self.bus.client()
        self.bus.click(27)
        self.assertEqual(self.session.events.next(), "stopping")
        self.session.wait_for_peer()
        self.session.gate.open()
        self.assertEqual(self.session.events.next(), "stopping")
        (self.session.bin / "lsof").unlink()
        self.session.gate.open()
        self.assertEqual(self.client.status(), 0)
        self.bus.wait_for_client(besides=name)
        after = self.bus.pid()
        self.assertNotEqual(after, self.client.pid)
        self.session.wait_for_start()
        self.traffic.wait_for_label(*counted(4))
        self.bus.click(29)
        wait_for_end(after)


class NoScreen(OnScreen):
    def test_windows_are_tried_if_only_wayland_display_is_set(self):
        for wayland, reason in ("", "there is no display"), ("none", "it ended before its window appeared"):
            self.start(switched_off=True, environment={"DISPLAY": "", "WAYLAND_DISPLAY": wayland})
            self.bus.click(24)
            self.client.complained(reason + "\n")
            self.assertEqual(self.client.end(), 0)


isolation.main()
