"""The windows that the tray face opens: read and pressed on a screen of the test's own, as a screen reader does it."""

import shutil
import signal

from support import isolation
from desktop.bus import CLIENT, DAEMON, ITEM
from desktop.onscreen import OnScreen
from desktop.session import CONNECTED, DISABLED, NO_TRAY, counted, end_process, running, wait_for_end
from support.windows import (AWAKE, CONNECTING, GUIDE, MISSING_APP, NOT_AWAKE, NOT_CONNECTING, OFFICIAL_MODE, OWN_MODE,
                             RECONNECTED, STOPPED, codex_check, diagnosis)
from desktop.xfce import DISPLAY

MENU_WINDOW = "Kestrune"
STOPPED_BY_HAND = "🔴 連線狀態：已手動關停，背景服務已停止"

# Runs at the end of the stop, twice.
HELD_UP_STOP = """
echo "stopping" > "$HOME/events"
read -r < "$HOME/gate"
"""


class Commands(OnScreen):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.session.program("xdg-open", 'echo "$# $1" > "$HOME/events"\n')

    def setUp(self):
        # Not by way of a login shell, as the commands of the backend.
        self.start_in_time(environment={"PATH": f"{self.session.bin}:{self.session.environment['PATH']}"})

    def test_the_diagnosis(self):
        number = self.reports() + 1
        self.assertOpens(21, diagnosis(number))
        self.traffic.wait_for_label(*counted(number + 1))
        self.assertAsked("status", "status")

    def test_the_diagnosis_of_a_backend_that_fails(self):
        failing = self.session.home / "failing"
        failing.touch()
        self.addCleanup(failing.unlink)
        number = self.reports() + 1
        self.assertOpens(21, diagnosis(number, failing=True))
        self.traffic.wait_for_label(*counted(number + 1))
        self.assertAsked("status", "status")
        self.assertOpens(22, codex_check(number + 2, failing=True))
        self.assertEqual(self.labels(2), ["🔴 連線狀態：Codex 診斷已更新"])
        self.assertAsked("status")

    def test_the_check_of_codex(self):
        number = self.reports() + 1
        self.assertOpens(22, codex_check(number))
        self.assertEqual(self.labels(2, 4), ["🟢 連線狀態：Codex 診斷已更新", counted(number)[1]])
        self.assertAsked("status")

    def test_the_folder_of_the_backend(self):
        self.bus.click(25)
        self.assertEqual(self.session.events.next(), f"1 {self.session.repo}")

    def test_the_app_that_is_missing(self):
        self.assertOpens(23, MISSING_APP)

    def test_the_guide_is_closed_by_a_key(self):
        for key in ("Return", "Escape", "space"):
            with self.subTest(key=key):
                self.bus.click(24)
                shown, window = self.read(GUIDE.title)
                self.assertEqual(shown, GUIDE)
                pid = window.pid()
                self.screen.run("xdotool", "key", key)
                wait_for_end(pid)

    def test_windows_come_one_after_the_other(self):
        for row in (24, 23):
            self.bus.click(row)
        _, window = self.read(GUIDE.title)
        self.assertEqual(self.windows(), [window.pid()])
        self.close(window)
        self.assertShows(MISSING_APP)

    def test_a_window_that_dies_becomes_a_notification(self):
        self.bus.click(24)
        end_process(self.window(GUIDE.title).pid())
        self.traffic.wait("Notify", lambda data: data[3:5] == [GUIDE.title, GUIDE.text])
        self.client.complained("it ended without an answer\n")
        self.assertOpens(23, MISSING_APP)

    def test_the_mode(self):
        self.assertOpens(17, OFFICIAL_MODE)
        self.assertEqual(self.labels(2, 3, 17), ["🟡 連線狀態：已切換到官方 ChatGPT 模式", "連接模式：官方 ChatGPT",
                                                 "使用 Kestrune 自托管模式"])
        self.assertEqual(self.session.preferences()["connectionMode"], "official_chatgpt")
        self.assertOpens(17, OWN_MODE)
        self.assertEqual(self.labels(2, 3, 17), ["🟡 連線狀態：已切換到 Kestrune 自托管模式", "連接模式：Kestrune 自托管",
                                                 "使用官方 ChatGPT 模式"])
        self.assertEqual(self.session.preferences()["connectionMode"], "kestrune_self_hosted")

    def test_keep_awake(self):
        for window, status, kept in ((NOT_AWAKE, "保持喚醒已關閉", False), (AWAKE, "保持喚醒已開啟", True)):
            self.assertOpens(16, window)
            self.assertEqual(self.labels(2), [f"🟡 連線狀態：{status}"])
            self.assertIs(self.mark(16), kept)
            self.assertIs(self.session.preferences()["keepAwakeEnabled"], kept)


class MenuWindow(OnScreen):
    def setUp(self):
        self.start_in_time()

    def assertMenuOpens(self):
        """With the rows of the menu in the tray."""
        window = self.window(MENU_WINDOW)
        shown = [node.name() for node in window.all() if node.role() in ("label", "push button", "check box")]
        self.assertEqual(shown, [row["label"] for row in self.bus.rows().values() if "label" in row])
        return window

    def test_a_left_click_opens_it_and_a_row_is_chosen(self):
        self.bus.call(ITEM, "Activate", "ii", 0, 0)
        menu = self.assertMenuOpens()
        pid = menu.pid()
        menu.find("push button", "官方 ChatGPT 連接說明").press()
        wait_for_end(pid)
        self.assertShows(GUIDE)

    def test_a_second_click_opens_no_other(self):
        for _ in range(2):
            self.bus.call(ITEM, "Activate", "ii", 0, 0)
        pid = self.assertMenuOpens().pid()
        self.assertEqual(self.windows(), [pid])
        self.screen.run("xdotool", "key", "Escape")
        wait_for_end(pid)

    def test_a_second_start_by_hand_opens_it(self):
        self.assertEqual(self.session.run(), (0, "", ""))
        pid = self.assertMenuOpens().pid()
        self.screen.run("xdotool", "key", "Escape")
        wait_for_end(pid)

    def test_a_second_start_in_the_background_does_not(self):
        self.assertEqual(self.session.run("--background"), (0, "", ""))
        # Whatever it might have opened would come before this one.
        self.bus.click(24)
        shown, window = self.read(GUIDE.title)
        self.assertEqual(self.windows(), [window.pid()])
        self.close(window)

    def test_a_mark_is_turned_in_it(self):
        self.bus.call(ITEM, "Activate", "ii", 0, 0)
        menu = self.assertMenuOpens()
        menu.find("check box", "保持 Mac 醒著（防止斷線）").press()
        self.assertShows(NOT_AWAKE)
        self.assertFalse(self.mark(16))
        self.assertOpens(16, AWAKE)

    def test_it_follows_while_it_is_open(self):
        self.bus.call(ITEM, "Activate", "ii", 0, 0)
        menu = self.assertMenuOpens()
        row = menu.find("push button", "使用官方 ChatGPT 模式")
        self.bus.click(17)
        row.wait(lambda node: node.name() == "使用 Kestrune 自托管模式", "other mode")
        pid = menu.pid()
        self.assertShows(OFFICIAL_MODE)
        self.assertIn(pid, running())
        row.press()
        wait_for_end(pid)
        self.assertShows(OWN_MODE)


class Services(OnScreen):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.start_with_services()

    def test_they_stop_and_come_back(self):
        services = self.session.services()
        self.assertOpens(18, STOPPED)
        for pid in services:
            wait_for_end(pid)
        self.assertEqual(self.labels(2, 8, 9, 18),
                         [STOPPED_BY_HAND, "同步專案：未同步", "同步會話：尚未啟動", "立即重新檢查連線"])
        self.assertFalse(self.mark(15))
        self.assertIs(self.session.preferences()["autoConnectEnabled"], False)

        self.bus.click(18)
        shown, window = self.read(RECONNECTED.title)
        self.assertFalse(shown.warns)
        self.close(window)
        self.assertTrue(self.mark(15))
        services = self.session.services()
        self.assertReconnects()
        self.assertEqual(self.labels(2), [CONNECTED])

        self.assertOpens(15, NOT_CONNECTING)
        for pid in services:
            wait_for_end(pid)
        self.assertEqual(self.labels(2), [DISABLED])
        self.assertFalse(self.mark(15))

        self.bus.click(15)
        self.assertShows(CONNECTING)
        self.assertReconnects()
        self.assertEqual(self.labels(2), [CONNECTED])
        self.assertTrue(self.mark(15))
        self.session.services()


class Quitting(OnScreen):
    def setUp(self):
        self.traffic = self.bus.monitor()
        self.addCleanup(self.traffic.close)
        self.before = set(self.session.processes())
        shutil.rmtree(self.session.repo)
        self.session.copy_backend(self.session.repo)
        self.session.backend("refresh")
        self.services = self.session.services()
        self.client = self.session.start()
        self.traffic.wait_for_status(CONNECTED)
        self.bus.click(24)
        self.window(GUIDE.title)

    def assertAllEnded(self):
        self.assertEqual(self.client.status(), 0)
        for pid in self.services:
            wait_for_end(pid)
        self.session.wait_for_ends(besides=self.before)
        self.assertEqual(set(self.session.processes()), self.before)
        self.assertEqual(self.client.errors.all(), NO_TRAY)

    def test_with_a_window_open(self):
        self.bus.click(29)
        self.assertAllEnded()

    def test_by_a_signal_with_both_windows_open(self):
        self.bus.call(ITEM, "Activate", "ii", 0, 0)
        self.window(MENU_WINDOW)
        self.assertEqual(len(self.windows()), 2)
        self.client.send(signal.SIGTERM)
        self.assertAllEnded()

    def test_windows_go_before_the_backend_is_stopped(self):
        self.session.program("lsof", HELD_UP_STOP)
        self.addCleanup((self.session.bin / "lsof").unlink)
        window = self.window(GUIDE.title).pid()
        self.bus.click(29)
        self.assertEqual(self.session.events.next(), "stopping")
        wait_for_end(window)
        self.assertIn(self.client.pid, running())
        self.session.gate.open()
        self.assertEqual(self.session.events.next(), "stopping")
        self.session.gate.open()
        self.assertAllEnded()

    def test_from_the_menu_window_with_another_open(self):
        self.bus.call(ITEM, "Activate", "ii", 0, 0)
        self.window(MENU_WINDOW).find("push button", "退出 Kestrune").press()
        self.assertAllEnded()


class LostDisplay(OnScreen):
    def test_what_a_window_says_becomes_a_notification(self):
        self.start(environment={"DISPLAY": DISPLAY + "1"})
        self.bus.click(24)
        self.traffic.wait("Notify", lambda data: data[3:5] == [GUIDE.title, GUIDE.text])
        self.client.complained("it ended without an answer\n")
        self.assertEqual(self.client.end(), 0)


class Restart(OnScreen):
    def test_a_fresh_client_takes_over(self):
        self.session.program("lsof", HELD_UP_STOP)
        self.start()
        before = self.client.pid
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
        after = self.bus.call(DAEMON, "GetConnectionUnixProcessID", "s", CLIENT)[0]
        self.assertNotEqual(after, before)
        self.session.wait_for_start()
        self.traffic.wait_for_label(*counted(4))
        self.assertOpens(24, GUIDE)
        self.bus.click(29)
        wait_for_end(after)


if __name__ == "__main__":
    isolation.main()
